// Lists whose members hold their own links: joining, leaving and finding the first take one step each, and no memory.
#ifndef MERIDON_BASE_ROW_H
#define MERIDON_BASE_ROW_H

template <typename T>
struct Links {
	T *next = nullptr;
	T *prev = nullptr;
};

// In the order of joining. A member can be in one row for each of its links, and may leave only a row that it is in.
template <typename T, Links<T> T::*links>
struct Row {
	T *first = nullptr;
	T *last = nullptr;

	bool empty() const { return first == nullptr; }
	static T *after(const T *member) { return (member->*links).next; }

	void join(T *member)
	{
		(member->*links) = {nullptr, last};
		(last == nullptr ? first : (last->*links).next) = member;
		last = member;
	}
	void leave(T *member)
	{
		auto [next, prev] = member->*links;
		(prev == nullptr ? first : (prev->*links).next) = next;
		(next == nullptr ? last : (next->*links).prev) = prev;
		(member->*links) = {};
	}
	// Takes the first out; NULL if there is none.
	T *take()
	{
		T *member = first;
		if (member != nullptr)
			leave(member);
		return member;
	}
};

#endif
