// Enclaves as the tools list them.
#ifndef TOOLS_SHARED_ENCLAVES_H
#define TOOLS_SHARED_ENCLAVES_H

#include <string>
#include <vector>

#include <meridon/enclave.h>

#include "json.h"

Json enclave_to_json(const enclave_info_t &info);
// The id of its leader, and whether that has gone; "-" if it has none.
std::string leader_text(const enclave_info_t &info);
// Id, name, state, leader and root, fit to be looked at.
std::vector<std::string> enclave_fields(const enclave_info_t &info);

#endif
