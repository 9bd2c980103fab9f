// Records of the registry.
#include "record.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

#include <base/guards.h>
#include <fmt/format.h>

#include "shared/enclaves.h"

namespace {

constexpr ErrorMeaning error_meanings[] = {
    {EACCES, Exit::permission,
	"only root may change the registry; to try things out, set MERIDON_ROOT to a directory of your own"},
    {EPERM, Exit::permission, "the record must belong to root, and nobody else may write it"},
    {EROFS, Exit::failure, "the file system of the registry is read-only"},
    {ENOENT, Exit::not_found, "'enclavectl list' shows the enclaves"},
    {EINVAL, Exit::invalid, "'enclavectl add --help' has the rules"},
    {EBADMSG, Exit::failure, "its record can't be understood: remove it by its id and add it again"},
    {ENOMEM, Exit::memory, ""},
    {ENOSPC, Exit::failure, "the file system of the registry is full"},
};

std::string state_words()
{
	std::string words;
	for (uint32_t i = 0; i < ENCLAVE_STATE_INVALID; i++)
		words += fmt::format("{}{}", i == 0 ? "" : ", ", enclave_state_name(static_cast<enclave_state_t>(i)));
	return words;
}

} // namespace

Failure registry_failure(int error, const std::string &doing)
{
	return failure_by_error(error_meanings, error, fmt::format("{}: {}", doing, std::strerror(error)));
}

std::optional<enclaveid_t> id_of(const std::string &text)
{
	if (text.empty() || text.size() > 4 || text[0] == '0' ||
	    text.find_first_not_of("0123456789") != std::string::npos)
		return std::nullopt;
	return std::stoi(text);
}

enclaveid_t new_id(const std::string &text)
{
	std::optional<enclaveid_t> id = id_of(text);
	if (!id)
		throw Failure(Exit::invalid, fmt::format("'{}' is no id of an enclave", text))
		    .next(fmt::format("give a number from 1 to {}", ENCLAVE_ID_MAX));
	return *id;
}

enclave_state_t state_of(const std::string &word)
{
	enclave_state_t state = enclave_state_by_name(word.c_str());
	if (state == ENCLAVE_STATE_INVALID)
		throw Failure(Exit::invalid, fmt::format("'{}' is no state of an enclave", word))
		    .next("the states are " + state_words());
	return state;
}

void set_root(const std::string &root, enclave_info_t *info)
{
	const Heap<char> path(realpath(root.c_str(), nullptr));
	struct stat st;
	if (!path || stat(path.get(), &st) == -1)
		throw Failure(errno == EACCES ? Exit::permission : Exit::invalid,
		    fmt::format("the root '{}': {}", root, std::strerror(errno)))
		    .next("give a directory that exists");
	if (!S_ISDIR(st.st_mode))
		throw Failure(Exit::invalid, fmt::format("the root '{}' isn't a directory", root))
		    .next("give a directory");
	if (std::strlen(path.get()) > ENCLAVE_ROOT_MAX)
		throw Failure(Exit::invalid, fmt::format("the path of the root '{}' is too long", root))
		    .next(fmt::format("it may have {} bytes", ENCLAVE_ROOT_MAX));
	std::strcpy(info->ei_root, path.get());
}

void set_name(const std::string &name, enclave_info_t *info)
{
	if (name.size() > ENCLAVE_NAME_MAX)
		throw Failure(Exit::invalid, fmt::format("the name '{}' is too long", name))
		    .next(fmt::format("it may have {} bytes", ENCLAVE_NAME_MAX));
	std::strcpy(info->ei_name, name.c_str());
}

void set_leader(int pid, enclave_info_t *info)
{
	int error = enclave_leader_start(pid, &info->ei_leader_start);
	if (error != 0)
		throw Failure(Exit::invalid, fmt::format("the leader {}: {}", pid, std::strerror(error)))
		    .next("give the id of a running process that lives in the enclave");
	info->ei_leader = pid;
}

enclave_info_t find_record(const std::string &enclave)
{
	enclave_info_t info;
	const std::optional<enclaveid_t> id = id_of(enclave);
	const int error = id ? enclave_registry_get(*id, &info) : enclave_registry_find(enclave.c_str(), &info);
	if (error == ENOENT)
		throw Failure(Exit::not_found, fmt::format("there is no enclave '{}'", enclave))
		    .next("'enclavectl list' shows the enclaves");
	if (error != 0)
		throw registry_failure(error, fmt::format("enclave '{}'", enclave));
	return info;
}
