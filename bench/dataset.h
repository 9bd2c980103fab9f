// The data set of all benchmarks: objects of 114 to 118 bytes, as lines of a database and field by field.
//
//   linkname=net123;zone=z26;<TAB>mtu=uint32,4711;on=boolean,true;tags=string,lan\,site7,role123;ctr=int64,5123456789012;
#ifndef BENCH_DATASET_H
#define BENCH_DATASET_H

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace dataset {

struct Object {
	char linkname[16];
	char zone[4];
	uint32_t mtu;
	bool on;
	char site[12]; // the first of two tags, with a comma
	char role[16];
	int64_t ctr;
};

// Object i of the data set. Numbers begin at 100: a line's length differs only by their digits.
inline Object object(uint32_t i)
{
	uint32_t id = i + 100;
	Object o = {};
	o.on = id % 2 == 0;
	o.mtu = o.on ? 1000 + id * 7 % 9000 : 100 + id * 7 % 900;
	o.ctr = 5000000000000 + static_cast<int64_t>(id) * 1003713731 % 1000000000000;
	std::snprintf(o.linkname, sizeof(o.linkname), "net%" PRIu32, id);
	std::snprintf(o.zone, sizeof(o.zone), "z%u", (10 + (id + 73) % 90) % 100);
	std::snprintf(o.site, sizeof(o.site), "lan,site%u", id % 10);
	std::snprintf(o.role, sizeof(o.role), "role%03u", id % 1000);
	return o;
}

// The object's line, with its newline.
inline std::string line(const Object &o)
{
	char text[160];
	int length = std::snprintf(text, sizeof(text),
	    "linkname=%s;zone=%s;\tmtu=uint32,%" PRIu32 ";on=boolean,%s;tags=string,lan\\,%s,%s;ctr=int64,%" PRId64
	    ";\n",
	    o.linkname, o.zone, o.mtu, o.on ? "true" : "false", o.site + strlen("lan,"), o.role, o.ctr);
	return std::string(text, static_cast<size_t>(length));
}

inline std::vector<Object> objects(uint32_t count)
{
	std::vector<Object> all;
	all.reserve(count);
	for (uint32_t i = 0; i < count; i++)
		all.push_back(object(i));
	return all;
}

} // namespace dataset

#endif
