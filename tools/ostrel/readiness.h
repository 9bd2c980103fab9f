// Telling the service manager how far a server is.
#ifndef OSTREL_TOOL_READINESS_H
#define OSTREL_TOOL_READINESS_H

// Sends a state such as READY=1 to the socket that NOTIFY_SOCKET names, if it is set. A failure is a warning.
void tell_manager(const char *state);

#endif
