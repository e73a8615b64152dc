#pragma once
// Runs a command line through "/bin/sh -c" and returns the raw wait status, exactly what system()
// returns for it (-1 when no child could be made, exit status 127 when the shell could not run).
// Unlike system() it leaves the caller's signal dispositions alone: system() ignores SIGINT and
// SIGQUIT while the command runs, and ignoring a signal throws away one that is pending, so a Ctrl-C
// or a SIGTERM waiting for the event loop would be lost. The child starts with every signal at its
// default action and nothing blocked, whatever the caller blocks. Safe from any thread.

namespace Backend {

int RunThroughShell(const char* command);

}  // namespace Backend
