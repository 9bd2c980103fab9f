// Any bytes as a rights file. Each line stands for itself: a right is granted by a line alone or not at all, and never to
// somebody whom no line names.
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rights/rights.h"

namespace {

void demand(bool condition)
{
	if (!condition)
		abort();
}

class Nobody final : public rights::Holder {
public:
	bool is_user(std::string_view) override { return false; }
	bool in_group(std::string_view) override { return false; }
};

class Alice final : public rights::Holder {
public:
	bool is_user(std::string_view name) override { return name == "alice"; }
	bool in_group(std::string_view name) override { return name == "net"; }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	std::string_view text(reinterpret_cast<const char *>(data), size);
	for (std::string_view right : {"ostrel.read", "ostrel.write", "a"}) {
		Nobody nobody;
		Alice alice;
		demand(!rights::grants(text, right, nobody));
		bool by_a_line = false;
		for (std::string_view rest = text; !rest.empty();) {
			std::string_view line = rest.substr(0, rest.find('\n'));
			rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : rest.size());
			bool granted = rights::grants(line, right, alice);
			// Nothing is granted by a line that doesn't hold the name, and the right or a wildcard.
			demand(!granted || line.find("alice") != line.npos || line.find("%net") != line.npos);
			demand(!granted || line.find(right) != line.npos || line.find('*') != line.npos);
			by_a_line |= granted;
		}
		demand(rights::grants(text, right, alice) == by_a_line);
	}
	return 0;
}
