// Long random runs of every changing operation, beside a plain model. Half of the calls run out of memory: such a call
// changes nothing, and at the end nothing is left.
#include <algorithm>
#include <cerrno>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "alloc_fault.h"
#include "base/guards.h"
#include "list_text.h"

namespace {

struct ModelPair;
using Model = std::vector<ModelPair>;

struct ModelPair {
	std::string name;
	data_type_t type;
	std::string value; // as list_text() prints it, but for nested lists
	std::vector<Model> lists;
};

std::string text(const Model &model)
{
	std::string result;
	for (const ModelPair &pair : model) {
		result += pair.name + ":" + std::to_string(static_cast<uint32_t>(pair.type)) + "=" + pair.value;
		for (size_t i = 0; i < pair.lists.size(); i++)
			result.append(i > 0 ? ",{" : "{").append(text(pair.lists[i])).append("}");
		result += ";";
	}
	return result;
}

size_t size_of(const Model &model)
{
	size_t size = model.size();
	for (const ModelPair &pair : model)
		for (const Model &list : pair.lists)
			size += size_of(list);
	return size;
}

bool erase(Model &model, const std::string &name)
{
	return std::erase_if(model, [&](const ModelPair &pair) { return pair.name == name; }) > 0;
}

void put(Model &model, ModelPair pair)
{
	erase(model, pair.name);
	model.push_back(std::move(pair));
}

int depth_of(const Model &model)
{
	int depth = 1;
	for (const ModelPair &pair : model)
		for (const Model &list : pair.lists)
			depth = std::max(depth, 1 + depth_of(list));
	return depth;
}

// A list, the model of it, and how deep it lies.
struct Both {
	attrlist_t *list;
	Model *model;
	int level;
};

class Journey {
public:
	explicit Journey(uint32_t seed) : random_(seed)
	{
		EXPECT_EQ(attrlist_alloc(root_.out(), ATL_UNIQUE_NAME, 0), 0);
		for (int i = 0; i < 40; i++)
			names_.push_back(std::string("name").append(std::to_string(i)));
		names_.insert(names_.end(), {"", "n", std::string(300, 'x'), std::string(5000, 'y')});
	}

	void step()
	{
		using Step = void (Journey::*)();
		static constexpr Step steps[] = {
		    &Journey::add_array<int32_t, DATA_TYPE_INT32_ARRAY, attrlist_add_int32_array>,
		    &Journey::add_array<uint32_t, DATA_TYPE_UINT32_ARRAY, attrlist_add_uint32_array>,
		    &Journey::add_array<int64_t, DATA_TYPE_INT64_ARRAY, attrlist_add_int64_array>,
		    &Journey::add_array<uint64_t, DATA_TYPE_UINT64_ARRAY, attrlist_add_uint64_array>,
		    &Journey::add_texts, &Journey::add_texts, &Journey::add_text, &Journey::add_number,
		    &Journey::add_number, &Journey::add_list, &Journey::add_lists, &Journey::add_new_list,
		    &Journey::add_pair, &Journey::remove, &Journey::remove, &Journey::merge, &Journey::clear,
		    &Journey::replace_by_copy, &Journey::replace_by_unpacked};
		(this->*steps[below(std::size(steps))])();
		if (size_of(model_) > 200)
			start_again();
	}

	// The operations that ran out of memory.
	const std::set<std::string> &hit() const { return hit_; }
	std::string list() { return list_text(root_.get()); }
	std::string model() { return text(model_); }

private:
	size_t below(size_t limit) { return random_() % limit; }
	const std::string &any_name() { return names_[below(names_.size())]; }

	// Makes a call that takes memory, of which some may be refused. Says whether it has worked.
	template <typename Call>
	bool takes(const char *operation, Call call, int expected = 0)
	{
		AllocFault fault(below(2) == 0 ? 1 + static_cast<int>(below(3)) : INT_MAX);
		const int error = call();
		fault.stop();
		const bool ran_out = error == ENOMEM && fault.fired();
		if (ran_out)
			hit_.insert(operation);
		EXPECT_TRUE(error == expected || ran_out) << operation << " gives " << error;
		return error == 0;
	}

	// Makes such a call to add a pair to some list.
	template <typename Call>
	void add(const char *operation, ModelPair pair, Call call)
	{
		Both to = any_list();
		const int expected = to.level + depth_of({pair}) - 1 > ATTRLIST_DEPTH_MAX ? EINVAL : 0;
		if (takes(
			operation, [&] { return call(to.list, pair.name.c_str()); }, expected))
			put(*to.model, std::move(pair));
	}

	// The outermost list, or some list in it.
	Both any_list()
	{
		Both at = {root_.get(), &model_, 1};
		while (below(3) != 0) {
			std::vector<ModelPair *> nested;
			for (ModelPair &pair : *at.model)
				if (!pair.lists.empty())
					nested.push_back(&pair);
			if (nested.empty())
				break;
			ModelPair &pair = *nested[below(nested.size())];
			size_t which = below(pair.lists.size());
			at = {nested_list(at.list, pair, which), &pair.lists[which], at.level + 1};
		}
		return at;
	}

	static attrlist_t *nested_list(attrlist_t *list, const ModelPair &pair, size_t which)
	{
		attrlist_t *one = nullptr;
		attrlist_t **many = nullptr;
		uint_t count = 0;
		if (pair.type == DATA_TYPE_ATTRLIST) {
			EXPECT_EQ(attrlist_lookup_attrlist(list, pair.name.c_str(), &one), 0);
			return one;
		}
		EXPECT_EQ(attrlist_lookup_attrlist_array(list, pair.name.c_str(), &many, &count), 0);
		return many[which];
	}

	template <typename T, data_type_t Type, auto Add>
	void add_array()
	{
		static constexpr uint_t counts[] = {0, 1, 1, 1, 2, 3, 3, 40, 40, 600};
		std::vector<T> values(counts[below(std::size(counts))]);
		ModelPair pair = {any_name(), Type, "", {}};
		for (T &value : values) {
			value = static_cast<T>(random_() * (uint64_t{random_()} << 20));
			pair.value.append(&value != values.data() ? "," : "").append(std::to_string(value));
		}
		const uint_t count = static_cast<uint_t>(values.size());
		add(__func__, pair,
		    [&](attrlist_t *list, const char *name) { return Add(list, name, values.data(), count); });
	}

	std::string any_text()
	{
		static constexpr size_t lengths[] = {0, 1, 6, 7, 8, 9, 20, 100, 255, 256, 257, 900, 5000};
		return std::string(lengths[below(std::size(lengths))], static_cast<char>('a' + below(26)));
	}

	void add_texts()
	{
		std::vector<std::string> texts(below(4));
		std::vector<char *> pointers;
		ModelPair pair = {any_name(), DATA_TYPE_STRING_ARRAY, "", {}};
		for (std::string &one : texts) {
			one = any_text();
			pair.value.append(&one != texts.data() ? ",'" : "'").append(one).append("'");
			pointers.push_back(one.data());
		}
		add(__func__, pair, [&pointers](attrlist_t *list, const char *name) {
			return attrlist_add_string_array(
			    list, name, pointers.data(), static_cast<uint_t>(pointers.size()));
		});
	}

	void add_text()
	{
		const std::string value = any_text();
		add(__func__, {any_name(), DATA_TYPE_STRING, std::string("'").append(value).append("'"), {}},
		    [&value](
			attrlist_t *list, const char *name) { return attrlist_add_string(list, name, value.c_str()); });
	}

	void add_number()
	{
		const auto value = static_cast<int32_t>(random_());
		add(__func__, {any_name(), DATA_TYPE_INT32, std::to_string(value), {}},
		    [value](attrlist_t *list, const char *name) { return attrlist_add_int32(list, name, value); });
	}

	// The value may be the list itself, lie in it, or hold it.
	void add_list()
	{
		Both value = any_list();
		add(__func__, {any_name(), DATA_TYPE_ATTRLIST, "", {*value.model}},
		    [&value](
			attrlist_t *list, const char *name) { return attrlist_add_attrlist(list, name, value.list); });
	}

	void add_lists()
	{
		std::vector<attrlist_t *> lists;
		ModelPair pair = {any_name(), DATA_TYPE_ATTRLIST_ARRAY, "", {}};
		for (size_t left = below(3); left > 0; left--) {
			Both value = any_list();
			lists.push_back(value.list);
			pair.lists.push_back(*value.model);
		}
		add(__func__, pair, [&lists](attrlist_t *list, const char *name) {
			return attrlist_add_attrlist_array(list, name, lists.data(), static_cast<uint_t>(lists.size()));
		});
	}

	void add_new_list()
	{
		attrlist_t *made = nullptr;
		add(__func__, {any_name(), DATA_TYPE_ATTRLIST, "", {{}}}, [&made](attrlist_t *list, const char *name) {
			return attrlist_add_new_attrlist(list, name, &made);
		});
	}

	void add_pair()
	{
		Both from = any_list();
		if (from.model->empty())
			return;
		const ModelPair &copy = (*from.model)[below(from.model->size())];
		attrpair_t *pair = nullptr;
		ASSERT_EQ(attrlist_lookup_attrpair(from.list, copy.name.c_str(), &pair), 0);
		add(__func__, copy,
		    [pair](attrlist_t *list, const char *) { return attrlist_add_attrpair(list, pair); });
	}

	// By the name, or by name and type. It needs no memory.
	void remove()
	{
		static constexpr data_type_t types[] = {DATA_TYPE_STRING, DATA_TYPE_INT64_ARRAY, DATA_TYPE_ATTRLIST};
		Both from = any_list();
		std::string name = any_name();
		const data_type_t type = types[below(std::size(types))];
		const bool typed = below(2) != 0;
		auto named = [&](const ModelPair &pair) { return pair.name == name; };
		const auto found = std::find_if(from.model->begin(), from.model->end(), named);
		const bool there = found != from.model->end(), goes = there && (!typed || found->type == type);
		ASSERT_EQ(attrlist_exists(from.list, name.c_str()) != 0, there);
		AllocFault fault(1, AllocFault::After::Fail);
		const int error = typed ? attrlist_remove(from.list, name.c_str(), type)
					: attrlist_remove_all(from.list, name.c_str());
		fault.stop();
		ASSERT_EQ(error, goes ? 0 : ENOENT);
		if (goes)
			from.model->erase(found);
	}

	void merge()
	{
		Both from = any_list();
		Both to = any_list();
		Model copy = *from.model;
		auto call = [&] { return attrlist_merge(to.list, from.list, ATL_UNIQUE_NAME_TYPE); };
		const int expected = to.level + depth_of(copy) - 1 > ATTRLIST_DEPTH_MAX ? EINVAL : 0;
		if (!takes(__func__, call, expected) || from.list == to.list)
			return;
		for (ModelPair &pair : copy)
			put(*to.model, pair);
	}

	void clear()
	{
		Both what = any_list();
		if (what.level == 1 && below(4) != 0)
			return;
		ASSERT_EQ(attrlist_clear(what.list), 0);
		what.model->clear();
	}

	void replace_by_copy()
	{
		AttrList copy;
		if (takes(__func__, [&] { return attrlist_dup(root_.get(), copy.out(), 0); }))
			root_ = std::move(copy);
	}

	void replace_by_unpacked()
	{
		Heap<char> bytes;
		size_t size = 0;
		AttrList copy;
		auto pack = [&] { return attrlist_pack(root_.get(), bytes.out(), &size, ATL_ENCODE_XDR, 0); };
		auto unpack = [&] { return attrlist_unpack(bytes.get(), size, copy.out(), 0); };
		if (takes("pack", pack) && takes("unpack", unpack))
			root_ = std::move(copy);
	}

	// Outgrown: goes on with a part of it as the outermost list.
	void start_again()
	{
		Both part = any_list();
		Model model = *part.model;
		AttrList copy;
		ASSERT_EQ(attrlist_dup(part.list, copy.out(), 0), 0);
		model_ = std::move(model);
		root_ = std::move(copy);
	}

	std::mt19937 random_;
	std::vector<std::string> names_;
	AttrList root_;
	Model model_;
	std::set<std::string> hit_;
};

class AttrListModel : public testing::TestWithParam<uint32_t> {};

TEST_P(AttrListModel, AgreesAllTheWay)
{
	const HeapUse before = heap_use();
	{
		Journey journey(GetParam());
		for (int step = 0; step < 2000; step++) {
			journey.step();
			ASSERT_FALSE(HasFailure()) << "step " << step;
			ASSERT_EQ(journey.list(), journey.model()) << "step " << step;
		}
		const std::set<std::string> all = {"add_array", "add_list", "add_lists", "add_new_list", "add_pair",
		    "add_number", "add_text", "add_texts", "merge", "replace_by_copy", "pack", "unpack"};
		if (AllocFault::available()) {
			EXPECT_EQ(journey.hit(), all);
		}
	}
	EXPECT_EQ(heap_use().blocks, before.blocks) << "something is left";
}

INSTANTIATE_TEST_SUITE_P(Seeds, AttrListModel, testing::Range(1U, 9U));

} // namespace
