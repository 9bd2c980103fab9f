// Objects: made, taken apart, and packed into one list. Codes are returned without raising: the caller raises.
#include "libostrel_objects.h"

#include <cerrno>

#include "base/guards.h"
#include "libostrel_error.h"

ostrel_error_t ostrel_object_create(attrlist_t *idl, attrlist_t *props, attrlist_t **objp)
{
	AttrList obj;
	int error = objp == nullptr ? EINVAL : attrlist_alloc(obj.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = attrlist_add_attrlist(obj.get(), OSTREL_OBJECT_IDLIST, idl);
	if (error == 0 && props != nullptr)
		error = attrlist_add_attrlist(obj.get(), OSTREL_OBJECT_PROPS, props);
	if (error != 0)
		return ostrel_errno2error(error);
	*objp = obj.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_look(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp)
{
	int error = attrlist_lookup_attrlist(obj, OSTREL_OBJECT_IDLIST, idlp);
	if (error == 0)
		error = attrlist_lookup_attrlist(obj, OSTREL_OBJECT_PROPS, propsp);
	return ostrel_errno2error(error);
}

ostrel_error_t ostrel_object_get(attrlist_t *obj, attrlist_t **idlp, attrlist_t **propsp)
{
	attrlist_t *idl = nullptr;
	attrlist_t *props = nullptr;

	if (idlp == nullptr && propsp == nullptr)
		return OSTREL_INVALID_ARG;
	if (idlp != nullptr)
		*idlp = nullptr;
	// Both have to be there, whichever is wanted.
	if (ostrel_error_t result = ostrel_object_look(obj, &idl, &props))
		return result;

	AttrList idl_copy;
	AttrList props_copy;
	int error = idlp == nullptr ? 0 : attrlist_dup(idl, idl_copy.out(), 0);
	if (error == 0 && propsp != nullptr)
		error = attrlist_dup(props, props_copy.out(), 0);
	if (error != 0)
		return ostrel_errno2error(error);
	if (idlp != nullptr)
		*idlp = idl_copy.release();
	if (propsp != nullptr)
		*propsp = props_copy.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_list_create(attrlist_t **objs, unsigned int count, attrlist_t **listp)
{
	AttrList list;

	if (listp == nullptr)
		return OSTREL_INVALID_ARG;
	*listp = nullptr;
	int error = attrlist_alloc(list.out(), ATL_UNIQUE_NAME, 0);
	if (error == 0)
		error = attrlist_add_uint64(list.get(), OSTREL_OBJECT_COUNT, count);
	if (error == 0)
		error = attrlist_add_attrlist_array(list.get(), OSTREL_OBJECT_LIST, objs, count);
	if (error != 0)
		return ostrel_errno2error(error);
	*listp = list.release();
	return OSTREL_SUCCESS;
}

ostrel_error_t ostrel_object_list_get_objects(attrlist_t *list, attrlist_t ***objsp, unsigned int *countp)
{
	attrlist_t **stored;

	if (countp == nullptr)
		return OSTREL_INVALID_ARG;
	// The length of the array is what counts; the list's own count may say something else.
	if (int error = attrlist_lookup_attrlist_array(list, OSTREL_OBJECT_LIST, &stored, countp))
		return ostrel_errno2error(error);
	if (objsp == nullptr)
		return OSTREL_SUCCESS;

	Objects objs;
	if (!objs.alloc(*countp))
		return OSTREL_NO_MEMORY;
	for (unsigned int i = 0; i < *countp; i++) {
		if (int error = attrlist_dup(stored[i], &objs[i], 0))
			return ostrel_errno2error(error);
	}
	*objsp = objs.release();
	return OSTREL_SUCCESS;
}
