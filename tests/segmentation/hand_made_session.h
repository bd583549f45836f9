// A publisher's session with everything that chunks can look like: each header format, each form of the basic
// header, extended timestamps, lengths of zero, changing chunk sizes down to 1, and every control message.
#pragma once

#include "tests/segmentation/replayed_session.h"

Session hand_made_session();
