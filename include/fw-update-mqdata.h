/// The record of the control channel, and its codes.
///
/// A client puts one command record into "/fwupdateservice_usb" and takes one reply record out of
/// "/fwupdatecontrol_usb". Both POSIX message queues carry records of exactly 284 bytes at
/// priority 0, in host byte order.
///
/// Compiles as C11 and as C++17.
#ifndef FW_UPDATE_MQDATA_H
#define FW_UPDATE_MQDATA_H

#include <stddef.h>
#include <stdint.h>

#define FW_MQ_SERVICE_QUEUE "/fwupdateservice_usb" /* commands, into the service */
#define FW_MQ_CONTROL_QUEUE "/fwupdatecontrol_usb" /* replies, out of the service */

#define FW_MQ_PATH_SIZE 256
#define FW_MQ_MAX_MESSAGES 10

/// What a record asks for.
#ifdef __cplusplus
enum MQCommand : int32_t
#else
typedef int32_t MQCommand;
enum
#endif
{
    MQ_COMMAND_START = 1,     ///< start the USB update
    MQ_COMMAND_REPLY = 3,     ///< stands in every reply
    MQ_COMMAND_STOP = 4,      ///< end the control task; no reply
    MQ_COMMAND_PROGRESS = 6,  ///< ask how far the update has come; value: percent
    MQ_COMMAND_TIME = 7,      ///< ask for the expected duration; value: seconds
    MQ_COMMAND_PATH = 8       ///< set the stick directory from path, at most 127 characters
};

/// How a command ended.
#ifdef __cplusplus
enum MQResult : int32_t
#else
typedef int32_t MQResult;
enum
#endif
{
    MQ_RESULT_ACCEPTED = 0,     ///< the update was started, the path stored, the time is known
    MQ_RESULT_RUNNING = 1,      ///< an update is running
    MQ_RESULT_DONE = 2,         ///< the update finished; reported once
    MQ_RESULT_REFUSED = -1,     ///< already updating; for MQ_COMMAND_TIME no key or no update
    MQ_RESULT_FAILED = -4,      ///< the update failed; reported once
    MQ_RESULT_NOT_RUNNING = -5  ///< no update is running
};

/// What stands in the kind field of every record that the service builds.
#define FW_MQ_KIND 8

/// One record. A client fills all 284 bytes, zero where it has nothing to say.
typedef struct MQData
{
    int32_t command;             ///< MQCommand
    int32_t result;              ///< MQResult in a reply
    int32_t kind;                ///< FW_MQ_KIND
    char path[FW_MQ_PATH_SIZE];  ///< NUL-terminated text, used by MQ_COMMAND_PATH
    int32_t value;               ///< seconds or percent in a reply
    unsigned char reserved[12];  ///< zero
} MQData;

#ifdef __cplusplus
static_assert(sizeof(MQData) == 284, "the record is 284 bytes on every machine");
static_assert(offsetof(MQData, value) == 268, "the record has no padding");
#else
_Static_assert(sizeof(MQData) == 284, "the record is 284 bytes on every machine");
_Static_assert(offsetof(MQData, value) == 268, "the record has no padding");
#endif

#endif
