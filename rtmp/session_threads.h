// The two threads of a connection: where they begin. connection_table creates them, connection_close ends
// them.
//
// Both are stopped by deferred cancellation, so every blocking call and every print is a place where they may
// end. Therefore, on them: no print, sleep or socket call between lock and unlock; no noexcept and no
// catch-all on a path with a cancellation point; no destructor that prints, sleeps or closes; a payload under
// construction lives in the connection, never in a local across a cancellation point.
#pragma once

// argument: the RTMPConnection. Handshake, then messages until the client goes or breaks a rule; sets
// thread_died.
extern "C" void* reader_thread(void* argument);

// argument: the RTMPConnection. Drains connection_out until a send fails; sets thread2_died.
extern "C" void* writer_thread(void* argument);
