// The entry points of a connection's two threads. connection_table creates the threads, and connection_close
// ends them.
//
// Both are stopped by deferred cancellation, so they may end during any blocking call and whenever they
// print. The following rules therefore apply to these threads. Never print, sleep or use a socket between
// lock and unlock. Use neither noexcept nor catch (...) on a path with a cancellation point. No destructor
// may print, sleep or close. A payload under construction is kept in the connection, never in a local
// variable across a cancellation point.
#pragma once

// argument: the RTMPConnection. Does the handshake, then reads messages until the client closes the
// connection or sends something that the server does not accept. Sets thread_died at the end.
extern "C" void* reader_thread(void* argument);

// argument: the RTMPConnection. Sends what is in connection_out until a send fails. Sets
// thread2_died at the end.
extern "C" void* writer_thread(void* argument);
