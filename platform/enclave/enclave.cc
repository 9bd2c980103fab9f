// Enclaves: which one this process is in.
#include <meridon/enclave.h>

enclaveid_t getenclaveid(void)
{
	return 0;
}
