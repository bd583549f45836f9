// A network and a /run of this process's own, so that every test process has its own port 1935 and its own
// control socket path, and tests run side by side and beside a real server.
#pragma once

#include <string>

// Enters new network and mount namespaces (and a user namespace when not root), makes mounts private, puts a
// tmpfs on /run (and on /var/run where that is a directory of its own) and brings the loopback interface up.
//
// Call it first in main, before any thread exists. When the system does not allow it, prints what to do and
// exits with status 2: a test must never run against the machine's real port by accident.
void enter_private_namespaces(char** argv);

// Returns a link in the private /run that leads to the file: a short path without blanks. For what splits a
// path at blanks or colons, and for what is shown in a narrow terminal. Throws TestFailure.
std::string linked_in_run(const std::string& file);
