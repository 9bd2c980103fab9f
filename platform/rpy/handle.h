// A handle: the connection that all client objects are made against.
#ifndef MERIDON_RPY_HANDLE_H
#define MERIDON_RPY_HANDLE_H

#include <cstdint>

#include <meridon/enclave.h>
#include <meridon/rpy.h>

#include "base/guards.h"
#include "base/process_mark.h"
#include "rpy/batch_state.h"
#include "rpy/texts.h"

// Threads share a handle, and what it is bound to stays as it is meanwhile: decorating, binding and unbinding are for one
// thread, with no other at the handle. `change` belongs to the update that runs.
struct rpy_handle {
	Fd hatch; // none while unbound
	rpy::Text path;
	enclaveid_t enclave = ENCLAVE_ID_GLOBAL; // where the path lies; the global one if that isn't known
	pid_t daemon = 0;                        // the server of the hatch when it was bound; 0 if that can't be seen
	ProcessMark binder{};                    // the process that bound it
	uint64_t change = 0;                     // what changes are part of; 0: each stands alone
	rpy::RequestBatch batch;
};

#endif
