// Enclaves as the tools name and list them.
#ifndef TOOLS_SHARED_ENCLAVES_H
#define TOOLS_SHARED_ENCLAVES_H

#include <string>
#include <vector>

#include <meridon/enclave.h>

#include "json.h"
#include "terminal.h"

// The enclave that an option names; that of this process, if the word is empty. Throws Failure if there is none.
enclaveid_t enclave_option(const std::string &word);

// All enclaves of the host, by number. Throws Failure if the registry can't be read.
std::vector<enclave_info_t> all_enclaves();

Json enclave_to_json(const enclave_info_t &info);
// The id of its leader, and whether that has gone; "-" if it has none.
std::string leader_text(const enclave_info_t &info);
// Prints them: on a terminal as a table with this head, elsewhere fields divided by TABs.
void print_enclaves(const std::vector<enclave_info_t> &infos, Table &&table);

#endif
