// The arguments of a command, decoded one AMF0 value after another from its payload. Main thread.
#pragma once

#include "amf/amf_read.h"
#include "amf/amf_value.h"

class CommandArgs {
  public:
    // s: just past the command name; sf: the end of the payload, which outlives this object.
    CommandArgs(const unsigned char* s, const unsigned char* sf) : cursor(s), end(sf) {}

    [[nodiscard]] bool at_end() const { return cursor >= end; }

    // Decodes the next value; false when none is left or it is malformed.
    [[nodiscard]] bool read(AMF_Value& value) { return AMF_ReadValueChecked(value, cursor, end); }

    // The same for a value that may not be the last one.
    [[nodiscard]] bool read_followed_by_more(AMF_Value& value) { return read(value) && !at_end(); }

    // Decodes and ignores the next value, if there is one; false when it is malformed.
    [[nodiscard]] bool skip_optional() {
        AMF_Value ignored;
        return at_end() || read(ignored);
    }

  private:
    const unsigned char* cursor;
    const unsigned char* const end;
};
