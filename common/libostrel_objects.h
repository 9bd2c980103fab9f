/*
 * Objects: pairs of an identifier list and a property list, alone, in arrays and in a list of their own.
 */
#ifndef LIBOSTREL_OBJECTS_H
#define LIBOSTREL_OBJECTS_H

#include <cstdlib>

#include "libostrel.h"

#define OSTREL_OBJECT_IDLIST "object-idlist"
#define OSTREL_OBJECT_PROPS "object-props"
#define OSTREL_OBJECT_COUNT "object-count"
#define OSTREL_OBJECT_LIST "object-list"

// Gives the two lists that lie in an object, in place, nothing copied. Errors: OSTREL_NOT_FOUND  one of the two is
// missing
ostrel_error_t ostrel_object_look(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp);
// Packs an array of objects into one list. Owns: objects are copied; *listp is new, NULL on failure.
ostrel_error_t ostrel_object_list_create(attrlist_t **objs, unsigned int count, attrlist_t **listp);
// Takes the objects out again. Owns: *objsp is a new array (malloc family) of copies, never NULL; `objsp` may be NULL
// if only the count is wanted. Errors: OSTREL_NOT_FOUND  no objects in the list
ostrel_error_t ostrel_object_list_get_objects(attrlist_t *list, attrlist_t ***objsp, unsigned int *countp);

// Owns an array of objects in the form in which dbc_read gives it.
class Objects {
public:
	Objects() = default;
	Objects(const Objects &) = delete;
	Objects &operator=(const Objects &) = delete;
	~Objects()
	{
		// A call that failed may have stored its count ahead of the array.
		for (unsigned int i = 0; objs_ != nullptr && i < count_; i++)
			attrlist_free(objs_[i]);
		free(objs_);
	}

	unsigned int count() const { return count_; }
	attrlist_t *&operator[](unsigned int i) { return objs_[i]; }
	// `count` empty places, in a valid array also for 0; false if memory ran out.
	bool alloc(unsigned int count)
	{
		objs_ = static_cast<attrlist_t **>(calloc(count > 0 ? count : 1, sizeof(attrlist_t *)));
		count_ = objs_ != nullptr ? count : 0;
		return objs_ != nullptr;
	}
	// For dbc_read; after its failure forget() what it may have left there.
	attrlist_t ***out() { return &objs_; }
	unsigned int *out_count() { return &count_; }
	void forget()
	{
		objs_ = nullptr;
		count_ = 0;
	}
	// Frees one object ahead of the others.
	void drop(unsigned int i)
	{
		attrlist_free(objs_[i]);
		objs_[i] = nullptr;
	}
	// Gives the array up, with all that is in it.
	attrlist_t **release()
	{
		attrlist_t **objs = objs_;
		forget();
		return objs;
	}

private:
	attrlist_t **objs_ = nullptr;
	unsigned int count_ = 0;
};

#endif
