#include "platform/log/message-ids.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace quillon {

namespace {

constexpr char kService[] = "FWUPDATE";
constexpr char kPlatform[] = "QUILLON-PLATFORM";
constexpr char kHelper[] = "QUILLON-PRIVILEGED";

}  // namespace

const ExplainedMessage kExplainedMessages[] = {
    {"c70c4046d2954fd689f8d06f513a411e",
     {"[uep][%s] pHandle Error: %s\n", "[uep][%s] dlsym Error: %s\n"}},
    {"1f473d5c88e7440b98f16b5db0855019",
     {"Error: %s file is NOT signed ", "Error: %s is NOT signed "}},
    {"0766691edb184e4ba430ffe3e28dee5f", {"Error: %s file open", "Error: %s open fail"}},
    {"90cc154f78964976b383147b04ea5cfb", {"Error: iv is worng"}},
    {"ecedd69ecac742c9b0b978c3ac9e0481", {"Error: Decryption data is null"}},
    {"dc304270c08742d7958430e02d71e625", {"Error: %s Firmware CheckVersion Fail"}},
    {"3c547a3271c04f2a967b5b0b021f90e6",
     {"Error: %s Firmware not need update", "Error: %s not need update, version is %s"}},
    {"41c88846e04f47b2b7d396e4ac0dc4c2", {"Error: %s Firmware doUpdate Fail %d (%d:%m)"}},
    {"d1d40d4ba48d429a88d571a33782c995", {"Error: %s runProcess Fail (%d:%m)"}},
    {"0b16ef8f1af640e794d9aae47d0a146f", {"Error : %s"}},
    {"f4d99934de914a748b0c8f9105c5eddd",
     {"Error: update task exception %s", "Error: update task exception of an unknown kind"}},
    {"104946c2b0444dfd8be93db482dbaf68", {"Error: control_task exception %s"}},
    {"31acb7aa38bf4fe1b849aa26fc6cb0e6", {"Error: doUpdateUSB fail"}},
    {"3c0d7f0a338c461f8b541a2e0b02953c", {"Error: update task getFirmwareUpdateTime fail"}},
    {"c2b88e55a6a649de9218defce5cea7c0", {"Service is being updated."}},
    {"073adb2dce684899b14edb610aa909b5",
     {"Error: decrption key is invalid", "decrption key is invalid"}},
    {"e47412aabbb94805aa29fac6bbbe2389", {"Error: %s is not installed. Need to re-install"}},
    {"976baa42b4674158a78208eee05934ab", {"Error: [%s, ret=%d ], install fail"}},
    {"6b4bfafb0dbe4b75a63a4a7f68d68263", {"Error: ss_read error %d"}},
    {"ec4a0f0ed54b49f5908233a5c0780b3d", {"Error: %s has no plug-in"}},
    {"30d4f85cde13403289646bd4df45d14f", {"Error: dlsym libfile: %s error: %s\n"}},
    {"26584469fe9a460aa8fb418ef75f0ed0", {"Error: dlsym error: %s\n"}},
    {"b9d65edd84b146e9aff548f46814e981",
     {"Error: EMPID is Wrong (%s)", "Error: EMPID is empty.(%s)",
      "Error: use EMPID only English and numbers. %s"}},
    {"f1b960c84b3049efa92b02ef84711b23", {"Error: %s getExpectedTime Fail"}},
    {"d0a89f8309b04c4eaa0bbedd5d768279", {"File System Exception: %s "}},
    {"e901b70080694ea6bac16c9755a3766b",
     {"Error: json loadInformation fail.(%s)\n", "Error: json crc read fail error:%s (%s)\n"}},
    {"81271af344504a7e83785481791faa9a",
     {"Error: Firmware json file no exist (%s)", "Error: Firmware binary file no exist (%s)"}},
    {"5ffac1a7980447939f2b0cf8742e9733",
     {"Error: %s Firmware CRC32 different", "Error: %s Firmware crc32 different"}},
    {"dce567e7ed764a33b3889bc21378f8bf", {"Error: Usb mount path Not found."}},
    {"6e6354ca5671478a8f0299b6a0566a31", {"Error: file no exist (%s)"}},
    {"54774b2b97c441168b7627b5e5f32947", {"Error: EMP ABM_DownloadAppBinary fail.(%s)"}},
    {"28c54a0ba24a4e919c23cd6178e12b76", {"Error: Firmware EMP Mount Fail.(%s)"}},
    {"63c9904814304d2ba12b732a1cdcef0e", {"PS_Mknod error, retVal: [%d], result: [%d]"}},
    {"6793ad633a5d4249a18218bcf4d1f34c",
     {"Error(iRet1=%d, iRet2=%d) while unmounitng [%s]", "Umount dir[%s] is invalid.",
      "Error: Firmware EMP UMount Fail.(%s)"}},
    {"ee81eb71e2084ab3b9b058cc7145db72",
     {"Dest Path [%s] failed to create! return:[%d], errno:[%d, %s, %s]"}},
    {"36b7d5edf7dc466e8933b3ab764216a1", {"symbolic link is detected\n"}},
    {"92d54ac78bf74ab89d6cd169575d4f1d", {"Parent\t: [sem_open] Failed\n"}},
    {"c9d28f1b9fc545609217bdb43be2ecde", {"Error: setSmackAccess Fail file [%s] label [%s]"}},
    {"f9f812d7cec545cb924e0060baa8dd1d", {"Error: LwipcEventDone %s failed: %m\n"}},
    {"68a9434f900b47249083e465bf84b294",
     {"Error: [fwupdate-daemon] smart_deadlock_register_watchdog_service fail!\n"}},
    {"39bf6be88e2a4a8faee3b91097562500", {"check_main_loop_stop thread stop"}},
    {"b72d001a9ae846f8b6770d89f3cf0cfd",
     {"Unable to read SW version from system-info",
      "getSWVersionString: Wrong string format - lack of dash: %s"}},
    {"3a43e14130004d29b17a3de5689d7ff9",
     {"the unit's WatchdogSec is %lld ms, it must be at least 20 s"},
     kPlatform},
    {"8aa06c1aeb054a2795f849832fe6474c",
     {"WATCHDOG_USEC or WATCHDOG_PID is malformed: running without a watchdog"},
     kPlatform},
    {"9bf84a7d61e4419f935b3f9d7f262034",
     {"the service manager could not be told %s: %s"},
     kPlatform},
    {"4b8cfdecc94e4075b95522746e071b4c",
     {"logind gives no power lock, the update runs without one: %s"},
     kPlatform},
    {"4d98d28bbc4a42919258597ef16bd14b",
     {"%s: no privileged helper at " QUILLON_PRIVILEGED_SOCKET ": %m"},
     kPlatform},
    {"9354ceb7248b4299bfd7be7c0eef5d41",
     {"%s: no answer from the privileged helper: %m"},
     kPlatform},
    {"e324dade168f49ad8d2098e54c5835d7", {"package %s cannot be downloaded: %s"}, kPlatform},
    {"14a943d7f207426d9109082f204bf959",
     {"package %s cannot be downloaded, given up after %u attempts: %s"},
     kPlatform},
    {"6b5a2ffcb1dd44338a9db19f84f66f23", {"package %s cannot be stored: %s"}, kPlatform},
    {"f656616942794466bcf45c7a6a2e81b9",
     {"%s: line %d has an unknown key or a value that it cannot have", "%s has no address"},
     kPlatform},
    {"56aa2a4187bb4495bf97716efcce0b0f",
     {"%s cannot be trusted: no certificate (*.pem) in %s",
      "%s is not signed by anyone trusted in %s: %s", "%s cannot be trusted: %s"},
     kPlatform},
    {"9b899b941b5d48e59569b46315b21e6e", {"%s/%s%s cannot be unsealed: %s"}, kPlatform},
    {"a05028d528734ba3b003f1b35d111e3e",
     {"no answer from the storage helper at " QUILLON_STORAGE_SOCKET ": %m"},
     kPlatform},
    {"5a6149f5f39e4aaaa363d41530c611eb",
     {"%s: the storage helper answers %d, its own line says why"},
     kPlatform},
    {"abde7ecabcfc492db73e2262a28d3055", {"process %d refused: user %u may not ask"}, kPlatform},
    {"53b65e6a6fde446d8ed7793ec3255ae9", {"%s [%.*s] refused: %s"}, kHelper},
    {"c9a778fa786946bd9e300b7147b498a8", {"process %d refused: user %u may not ask"}, kHelper},
};

const std::size_t kExplainedMessageCount = std::size(kExplainedMessages);

const char kStepId[] = "3eb66f01c87e4e87a24691b677c6041f";

const char* const kStepFormats[] = {
    "[%s, ret=%d ], install ok",
    "decryption key load success. key_size : %zu",
    "En/Decryption Service EXT skip [%s]",
    "firmware_main_task thread stop\n",
    "firmware_control_task thread stop\n",
    "Service is not being updated.",
    "[uep][%s] the file is signed successfully : %s\n",
    "Need Update [%s] [%d]",
    "Need Update [%s][%s]",
    "There is no update item",
    "Not Update Symbol [%s]",
    "%s update time %d ms",
    "%s Firmware Expected Time Check Done",
    "%s Firmware isNeedUpdateModules Try(%s)",
    "%s Firmware Update Try",
    "%s Firmware runProcess Try",
    "========== [ %s update start ] ==========",
    "========== [ %s update succeeded ] ==========",
    "EMP UMount Success %s",
    "Try doUpdateFirmwareAll",
    "about total update time is %d ms, Lock the power during about that time.",
    "device_power_lock_state done",
    "device_power_unlock_state",
    "device_power_unlock_state done",
    "Try allDoUpdateDone",
    "allDoUpdateDone Done",
};

const std::size_t kStepFormatCount = std::size(kStepFormats);

const char* messageId(const char* tag, const char* format)
{
    for (const ExplainedMessage& message : kExplainedMessages) {
        for (const char* wording : message.formats) {
            if (wording != nullptr && std::strcmp(wording, format) == 0 &&
                std::strcmp(message.tag, tag) == 0) {
                return message.id;
            }
        }
    }
    const auto isFormat = [&](const char* step) { return std::strcmp(step, format) == 0; };
    const bool isStep = std::strcmp(tag, kService) == 0 &&
                        std::any_of(std::begin(kStepFormats), std::end(kStepFormats), isFormat);
    return isStep ? kStepId : nullptr;
}

}  // namespace quillon
