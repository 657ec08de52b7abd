/* The contract compiled as C11: its types have the size and its entries the shape that the service
 * relies on. */

#include "fw-update-mqdata.h"
#include "fw-update-plugin.h"

_Static_assert(sizeof(CallerTypes) == 4, "a caller is 32 bits wide, as in C++");
_Static_assert(CALLER_USB_IMAGE == 3, "the values are part of the contract");

/* One typed pointer for each entry: a changed signature does not compile. */
typedef struct
{
    int (*setContext)(const char*, CallerTypes, char*);
    int (*getEMPID)(char*);
    int (*getActiveVersion)(char*);
    int (*checkVersion)(const char*, int*);
    int (*doUpdate)(const char*, unsigned long);
    int (*allUpdateDone)(void);
    int (*doUpdate_decryption)(const unsigned char*, int);
    int (*getExpectedTime)(int*);
    int (*getUpdateProgress)(unsigned int*);
} Entries;

unsigned long contractSizes(void);

unsigned long contractSizes(void)
{
    return sizeof((Entries){setContext, getEMPID, getActiveVersion, checkVersion, doUpdate,
                            allUpdateDone, doUpdate_decryption, getExpectedTime,
                            getUpdateProgress}) +
           sizeof(MQData) + sizeof(CallerTypes);
}
