#include "app/refusal.h"

#include "base/diag.h"

bool refuse_stream_name() {
    return refuse("play rejected, invalid stream name\n");
}
