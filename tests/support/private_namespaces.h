// A private network and /run for this process. Every test process thus has its own port 1935 and its own
// control socket path, so tests can run in parallel with each other and with a real server.
#pragma once

#include <string>

// Enters new network and mount namespaces (and a user namespace when not root), makes mounts private, puts a
// tmpfs on /run (and on /var/run if that is a separate directory) and brings the loopback interface up.
//
// Call it first in main, before any thread exists. If the system does not allow it, prints what to do and
// exits with status 2, because a test must never use the machine's real port by accident.
void enter_private_namespaces(char** argv);

// Returns a link to the file in the private /run, which is a short path without blanks or colons. For code
// that splits paths at these, and for narrow terminals. Throws TestFailure.
std::string linked_in_run(const std::string& file);
