// A refusal that two commands share.
#pragma once

// Refuses a stream name: prints one line and returns false. intended: publish prints the same line as play.
[[nodiscard]] bool refuse_stream_name();
