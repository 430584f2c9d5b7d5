#pragma once

namespace zagent::edr::host {

// The process's wish to end: raised by SIGINT, SIGTERM, the command "exit" and a lost control link, read by the main
// loop. Both calls are safe in a signal handler and from every thread.
void RequestExit();
bool IsExitRequested();

}  // namespace zagent::edr::host
