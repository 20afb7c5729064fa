// Detaching from the terminal and from everything that was inherited.
#pragma once

// Forks once; the calling process exits with 0 and the child returns as a session leader with umask 0 and
// only descriptors 0 to 2, on /dev/null. Failures exit with 0.
void daemonize();
