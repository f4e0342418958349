/* The daemon's entry point: the zelo program is a one-line main around it. */
#ifndef ZELO_DAEMON_H
#define ZELO_DAEMON_H

#include <zelo/common.h>

ZELO_BEGIN_DECLS

/* Runs the daemon or one of its options; returns the exit status. Without
 * options it returns only when SIGTERM ends it (15) or another instance runs
 * (0). */
ZELO_API int ZeloDaemonMain(int argc, char **argv);

ZELO_END_DECLS

#endif
