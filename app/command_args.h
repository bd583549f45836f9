// The arguments of a command, or the values of a data message, decoded from the payload one AMF0 value at a
// time. Main thread.
#pragma once

#include "amf/amf_read.h"
#include "amf/amf_value.h"

class CommandArgs {
  public:
    // s points to the first value to decode (in a command, just past its name), sf to the end of the payload,
    // which must outlive this object.
    CommandArgs(const unsigned char* s, const unsigned char* sf) : cursor(s), end(sf) {}

    [[nodiscard]] bool at_end() const { return cursor >= end; }

    // Decodes the next value. Returns false if none is left or it is malformed.
    [[nodiscard]] bool read(AMF_Value& value) { return AMF_ReadValueChecked(value, cursor, end); }

    // Like read, but also returns false if no further value follows.
    [[nodiscard]] bool read_followed_by_more(AMF_Value& value) { return read(value) && !at_end(); }

    // Decodes and ignores the next value, if any. Returns false if it is malformed.
    [[nodiscard]] bool skip_optional() {
        AMF_Value ignored;
        return at_end() || read(ignored);
    }

  private:
    const unsigned char* cursor;
    const unsigned char* const end;
};
