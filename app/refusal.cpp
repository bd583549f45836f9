#include "app/refusal.h"

#include "base/diag.h"

bool refuse(const char* text) {
    diag("%s", text);
    return false;
}

bool refuse_stream_name() {
    return refuse("play rejected, invalid stream name\n");
}
