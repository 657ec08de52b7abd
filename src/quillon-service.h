#pragma once

#include <glib.h>

#include <cstdint>

/// Text of the image key: lowercase hexadecimal, two characters a byte, NUL-terminated, with at
/// least 33 characters of storage, zero-filled. Null until the key has been read; never freed.
/// Written during start-up only.
extern unsigned char* dec_key;

/// Characters of that text; 0 until the key has been read.
extern std::uint32_t dec_key_size;

/// The stick directory as the client set it; all zero at process start. Written by the control
/// task, read by the update task. The spelling is the identifier's own.
extern char iamge_path[128];

/// The main task's event loop; null when none runs. Written by the main task only.
extern GMainLoop* g_main_loop;

/// Reads the image key from the secure storage into dec_key and dec_key_size.
///
/// @return 0 on success; -1 (logged) when the storage has no key, after an attempt to install the
///         provisioning package: the next call may then find it; otherwise the storage's own code
///         (logged).
/// Thread: start-up, before any task.
int ss_read_and_use_securestorage_code();

/// Installs the provisioning package that brings the image key.
/// @return 0 when it is installed, else the installer's result with bit 1 cleared. Logged.
int sdp_install_securestorage_code();

/// Tells the platform that the control channel is served.
///
/// Tries up to 61 times, and sleeps 10 ms after each but the first that fails.
/// @return 0, or -1 (logged) when the event could not be raised, or only on the very last try.
int set_service_running_done();

/// The main task: feeds the watchdog and looks for the life marker every 10 s, until it is gone.
/// @return 0 after the loop has ended; -1 (logged) at once when the watchdog refuses.
int firmware_main_task();

/// One tick of the main task's timer. When the life marker is gone it ends the loop and sends the
/// control task a stop record.
/// @param data  unused
/// @return TRUE: the timer stays.
gboolean notify_callback(gpointer data);

/// The control task: takes one command after another out of the service queue and answers, until
/// a stop command. Once stopped it never serves again in this process.
/// @return 0. An exception out of a plug-in that an estimate asked ends the task.
int firmware_control_task();

/// The update task: one USB update run with dec_key and iamge_path.
///
/// @param isUpdating  not touched
/// @param progress    set to 100 when done, also with a plug-in's own code as the run's result, and
/// to -1 when failed; accessed atomically
/// @return 0. An exception out of a plug-in counts as a failed update.
int firmware_update_task(bool& isUpdating, int& progress);
