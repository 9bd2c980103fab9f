// Databases in files: a point read, a full walk and a durable update, each beside its limit.
//
// Sizes are 100 and 10,000 objects; with BENCH_LARGE set, 1,000,000 too. Files lie in a directory of their own below
// BENCH_DIR (else /tmp), which should be on a disk: an update syncs.
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <libostrel.h>
#include <map>
#include <string>

#include "dataset.h"
#include "limits.h"

namespace {

void must(int error)
{
	if (error != 0)
		abort();
}

// The forms of a file: as the writer leaves it, one with a value that all lines have, one that people wrote.
enum class Form { Written, Everywhere, ByHand };

constexpr char everywhere[] = "everywhere-the-same";

std::string text_of(Form form, uint32_t count)
{
	std::string text;
	for (uint32_t i = 0; i < count; i++) {
		dataset::Object object = dataset::object(i);
		std::string line = dataset::line(object);
		if (form == Form::Everywhere)
			line.replace(line.find("zone="), line.find('\t') - line.find("zone="),
			    std::string("zone=") + everywhere + ";");
		if (form == Form::ByHand) {
			line.replace(line.find("boolean"), 7, "Boolean");
			line.erase(line.size() - 2, 1); // the last `;`
			line.insert(0, i % 2 == 0 ? "  " : "# a comment\n");
		}
		text += line;
	}
	return text;
}

// The files of this run, made when they are first asked for and removed at the end.
class Files {
public:
	Files()
	{
		const char *parent = getenv("BENCH_DIR");
		directory_ = std::string(parent != nullptr ? parent : "/tmp") + "/ostrel-bench-XXXXXX";
		if (mkdtemp(directory_.data()) == nullptr)
			abort();
	}
	Files(const Files &) = delete;
	Files &operator=(const Files &) = delete;
	~Files()
	{
		std::error_code ignored;
		std::filesystem::remove_all(directory_, ignored);
	}
	const std::string &directory() const { return directory_; }
	const std::string &get(Form form, uint32_t count)
	{
		std::string &path = paths_[{form, count}];
		if (path.empty()) {
			path = directory_ + "/" + std::to_string(static_cast<int>(form)) + "-" + std::to_string(count);
			std::ofstream(path, std::ios::binary) << text_of(form, count);
		}
		return path;
	}

private:
	std::string directory_;
	std::map<std::pair<Form, uint32_t>, std::string> paths_;
};

Files &files()
{
	static Files all;
	return all;
}

uint32_t count_of(const benchmark::State &state)
{
	return static_cast<uint32_t>(state.range(0));
}

class Db {
public:
	explicit Db(const std::string &path) { must(ostrel_db_open(path.c_str(), 0, ostrel_files_db_cmds, 0, &db_)); }
	Db(const Db &) = delete;
	Db &operator=(const Db &) = delete;
	~Db() { ostrel_db_close(db_); }
	operator ostrel_db_t() const { return db_; }

private:
	ostrel_db_t db_ = nullptr;
};

attrlist_t *identifiers(const char *linkname, const char *zone)
{
	attrlist_t *list;
	must(ostrel_idlist_init(&list, nullptr));
	must(ostrel_idlist_add(list, "linkname", linkname));
	must(ostrel_idlist_add(list, "zone", zone));
	return list;
}

// ---- Point read ----

void point_read(benchmark::State &state, Form form, const char *linkname, const char *zone, ostrel_error_t expected)
{
	Db db(files().get(form, count_of(state)));
	for (auto _ : state) {
		attrlist_t *wanted = identifiers(linkname, zone);
		attrlist_t *found = nullptr;
		if (ostrel_db_read(db, wanted, 0, &found) != expected)
			abort();
		attrlist_free(found);
		attrlist_free(wanted);
	}
}

void point_read_object(benchmark::State &state, Form form, uint32_t index)
{
	dataset::Object object = dataset::object(index);
	point_read(state, form, object.linkname, form == Form::Everywhere ? everywhere : object.zone, OSTREL_SUCCESS);
}

void point_read_first(benchmark::State &state)
{
	point_read_object(state, Form::Written, 0);
}
void point_read_middle(benchmark::State &state)
{
	point_read_object(state, Form::Written, count_of(state) / 2);
}
void point_read_last(benchmark::State &state)
{
	point_read_object(state, Form::Written, count_of(state) - 1);
}
void point_read_none(benchmark::State &state)
{
	point_read(state, Form::Written, "netX123", "z26", OSTREL_NOT_FOUND);
}
// The longest search value stands in every line.
void point_read_everywhere(benchmark::State &state)
{
	point_read_object(state, Form::Everywhere, count_of(state) / 2);
}
void point_read_by_hand(benchmark::State &state)
{
	point_read_object(state, Form::ByHand, count_of(state) / 2);
}

void scan(benchmark::State &state, Form form)
{
	const std::string &path = files().get(form, count_of(state));
	dataset::Object object = dataset::object(count_of(state) / 2);
	limits::Searcher searcher(object.linkname);
	for (auto _ : state)
		benchmark::DoNotOptimize(limits::scan_file(path.c_str(), searcher));
}

void point_read_limit(benchmark::State &state)
{
	scan(state, Form::Written);
}
void point_read_everywhere_limit(benchmark::State &state)
{
	scan(state, Form::Everywhere);
}
void point_read_by_hand_limit(benchmark::State &state)
{
	scan(state, Form::ByHand);
}

// ---- Full walk ----

int look(ostrel_db_t, attrlist_t *, attrlist_t *props, uint64_t, void *arg)
{
	uint32_t mtu = 0;
	must(ostrel_atl_get_one_uint32(props, "mtu", &mtu));
	*static_cast<uint64_t *>(arg) += mtu;
	return 0;
}

void full_walk(benchmark::State &state)
{
	Db db(files().get(Form::Written, count_of(state)));
	uint64_t sum = 0;
	for (auto _ : state)
		must(ostrel_db_walk(db, nullptr, 0, look, nullptr, &sum, nullptr));
	benchmark::DoNotOptimize(sum);
}

void full_walk_limit(benchmark::State &state)
{
	const std::string &path = files().get(Form::Written, count_of(state));
	for (auto _ : state)
		benchmark::DoNotOptimize(limits::parse_file(path.c_str()));
}

// ---- Durable update ----

void durable_update(benchmark::State &state, Form form)
{
	std::string path = files().get(form, count_of(state)) + "-updated";
	std::ofstream(path, std::ios::binary) << text_of(form, count_of(state));
	Db db(path);
	dataset::Object object = dataset::object(count_of(state) / 2);
	attrlist_t *wanted = identifiers(object.linkname, object.zone);
	attrlist_t *props;
	must(attrlist_alloc(&props, ATL_UNIQUE_NAME, 0));
	uint32_t mtu = 1000;
	for (auto _ : state) {
		must(ostrel_atl_add_one_uint32(props, "mtu", mtu++ % 9000 + 1000));
		must(ostrel_db_write(db, wanted, 0, props));
	}
	attrlist_free(props);
	attrlist_free(wanted);
}

void durable_update_written(benchmark::State &state)
{
	durable_update(state, Form::Written);
}

void durable_update_limit(benchmark::State &state)
{
	std::string path = files().get(Form::Written, count_of(state)) + "-replaced";
	std::string text = text_of(Form::Written, count_of(state));
	for (auto _ : state)
		limits::replace_file(path, files().directory(), text);
}

void sizes(benchmark::internal::Benchmark *row)
{
	row->Unit(benchmark::kMicrosecond)->Arg(100)->Arg(10000);
	if (getenv("BENCH_LARGE") != nullptr)
		row->Arg(1000000);
}

void real_sizes(benchmark::internal::Benchmark *row)
{
	sizes(row);
	row->UseRealTime();
}

BENCHMARK(point_read_limit)->Apply(sizes);
BENCHMARK(point_read_first)->Apply(sizes);
BENCHMARK(point_read_middle)->Apply(sizes);
BENCHMARK(point_read_last)->Apply(sizes);
BENCHMARK(point_read_none)->Apply(sizes);
BENCHMARK(point_read_everywhere_limit)->Apply(sizes);
BENCHMARK(point_read_everywhere)->Apply(sizes);
BENCHMARK(point_read_by_hand_limit)->Apply(sizes);
BENCHMARK(point_read_by_hand)->Apply(sizes);
BENCHMARK(full_walk_limit)->Apply(sizes);
BENCHMARK(full_walk)->Apply(sizes);
BENCHMARK(durable_update_limit)->Apply(real_sizes);
BENCHMARK(durable_update_written)->Apply(real_sizes);

} // namespace
