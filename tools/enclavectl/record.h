// Records of the registry, made of the words of the command line. All of these throw Failure for a word that doesn't fit.
#ifndef ENCLAVECTL_RECORD_H
#define ENCLAVECTL_RECORD_H

#include <optional>
#include <string>

#include <meridon/enclave.h>

#include "shared/failure.h"

// The failure of a call on the registry, by its errno value.
Failure registry_failure(int error, const std::string &doing);

// A number as an enclave can have it, without leading zeros; nothing if the text is none.
std::optional<enclaveid_t> id_of(const std::string &text);
enclaveid_t new_id(const std::string &text);
enclave_state_t state_of(const std::string &word);

void set_name(const std::string &name, enclave_info_t *info);
// The root is written down as the host's own path of it, whatever the links on the way there become later.
void set_root(const std::string &root, enclave_info_t *info);
void set_leader(int pid, enclave_info_t *info);

// The record of an enclave, by its number or its name.
enclave_info_t find_record(const std::string &enclave);

#endif
