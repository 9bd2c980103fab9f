// Rules for the requests of a served database.
#include "libostrel_hatchserver_rules.h"

#include "libostrel_backend.h"
#include "libostrel_handle.h"
#include "libostrel_idlist.h"

bool ostrel_request_stays(ostrel_db_t db, attrlist_t *idl)
{
	ostrel_stayscmd_t *answer = ostrel_db_get_cmds(db)->dbc_stays;
	return answer != nullptr ? answer(db, idl) : !ostrel_idlist_chooses(idl);
}

void ostrel_drop_own_enclave(ostrel_db_t db, attrlist_t *idl)
{
	int64_t enclave;
	if (ostrel_db_get_cmds(db)->dbc_stays != nullptr &&
	    attrlist_lookup_int64(idl, OSTREL_ID_ENCLAVE, &enclave) == 0 && enclave == ostrel_db_get_enclaveid(db))
		(void) attrlist_remove(idl, OSTREL_ID_ENCLAVE, DATA_TYPE_INT64); // it is there
}

bool ostrel_may_update(const peercred_t *cred, attrlist_t *idl)
{
	return peercred_getruid(cred) == 0 || ostrel_idlist_has_text(idl);
}
