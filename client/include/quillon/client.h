/// The client side of the update service's control channel, made safe.
///
/// Needs nothing but the C and C++ run-time libraries. A whole update:
///
///     quillon::Client client;
///     quillon::Error error = client.connect();
///     if (!error) error = client.setDirectory("/opt/media/USBDriveA");
///     if (!error) error = client.estimate().error;
///     if (!error) error = client.start();
///     while (!error) { auto progress = client.progress(); ... }  // until it has ended
///     client.estimate();  // so that no module stays marked, see estimate()
///
/// Errors are values; nothing here throws or writes to any stream.
#ifndef QUILLON_CLIENT_H
#define QUILLON_CLIENT_H

#include <chrono>
#include <memory>
#include <string>

namespace quillon {

enum class ErrorCode {
    kNone,          ///< no error
    kNotConnected,  ///< an operation before connect() succeeded, or after disconnect()
    kBadArgument,   ///< what the caller gave cannot be sent; nothing was sent
    kNoService,     ///< the service is not running: its queues do not exist
    kBusy,          ///< another client holds the channel
    kNoReply,       ///< no reply within the time-out
    kBadReply,      ///< replies came, but none that is well formed
    kRefused,       ///< the service answered no
    kLost,          ///< the service ended while this client was connected; connect anew
    kSystem         ///< a system call failed; the text says which and why
};

/// What went wrong, if anything: true in a condition when there is an error.
struct Error
{
    ErrorCode code = ErrorCode::kNone;
    std::string text;  ///< one line for people, without a full stop or newline; empty without error

    explicit operator bool() const { return code != ErrorCode::kNone; }
};

/// A value, or why there is none. The value means something only when `error` is not set.
template <typename T>
struct Result
{
    T value{};
    Error error;
};

struct Estimate
{
    bool updateNeeded = false;  ///< false also when the service has no image key: it cannot tell
    int seconds = 0;            ///< expected duration of the update; 0 when none is needed
};

struct Progress
{
    enum State {
        kIdle,     ///< no update is running
        kRunning,  ///< percent tells how far, from 0 to 99
        kDone,     ///< finished; told once, kIdle afterwards
        kFailed    ///< ended by a failure; told once, kIdle afterwards
    };
    State state = kIdle;
    int percent = 0;  ///< 100 for kDone, the last one (0 to 99) for kFailed, 0 for kIdle
};

/// How long a Client waits. Measured on the monotonic clock: setting the time of day neither cuts
/// a wait nor stretches it by more than half a second.
struct ClientOptions
{
    std::chrono::milliseconds lockTimeout{2000};        ///< for another client to finish
    std::chrono::milliseconds estimateTimeout{600000};  ///< the service deciphers every image
    std::chrono::milliseconds startTimeout{600000};     ///< the first start includes an estimate
    std::chrono::milliseconds replyTimeout{5000};       ///< for every other reply
};

/// One connection to the service. Exclusive: while one Client is connected, every other one on the
/// machine, of whatever user, gets kBusy. That is kept by a lock on
/// "/run/lock/quillon-client.lock" (in "/tmp" on machines without a shared /run/lock), which the
/// kernel releases when the holder ends, however it ends.
///
/// Replies carry no mark of the command that they answer. A Client therefore throws away replies
/// that an earlier client left behind, waits until the service has taken the commands that it left
/// behind, and takes no reply whose result cannot answer the command. After connecting, and after a
/// missing reply, it puts a progress query of its own before any other command, for its answer
/// cannot be mistaken; if that query learns how a run ended, the next progress() tells it.
///
/// A service that is killed leaves its queues. A connected client therefore watches the service's
/// process, where it can see it: one called "quillon-service", of the user that owns the queues, in
/// the same PID namespace. Every wait ends with kLost within a second when it is gone. The client
/// has to disconnect() and connect() again then, also if the service was restarted meanwhile.
///
/// Whoever may open the queues can read, forge and steal records: the client bears that without
/// crashing or waiting beyond its time-outs, but it cannot tell a forged reply from a true one.
///
/// Thread: one thread at a time per Client. Signals do not disturb the waits.
class Client
{
public:
    explicit Client(const ClientOptions& options = ClientOptions());
    ~Client();  ///< disconnects
    Client(Client&&) noexcept;
    Client& operator=(Client&&) noexcept;

    /// Opens the service's two queues and takes the lock. Does nothing when already connected.
    /// @return kNoService, kBusy (the text names the holder's process id when it is known), kSystem
    Error connect();

    /// Closes the queues and releases the lock. An update that was started goes on.
    void disconnect();

    /// Tells the service where the stick is mounted.
    ///
    /// What is sent ends in "/" and is filled up to 127 characters with more of them, which name
    /// the same directory. The service copies the characters over its earlier directory without
    /// ending them, so the tail of an earlier, longer one would otherwise show through.
    ///
    /// During an update this changes the directory under the running update: ask progress() first.
    /// @param directory  absolute, at most 127 characters including the "/" at its end, which may
    ///                   be left out
    /// @return kBadArgument, kNoReply, kBadReply, kLost, kSystem
    Error setDirectory(const std::string& directory);

    /// Asks which modules the stick has something newer for, and how long updating them takes.
    /// The service reads and deciphers every image for it. Not during an update: ask progress()
    /// first.
    ///
    /// The service marks the modules that need an update. A mark stays, even when the module has
    /// been updated, until an estimate reads the module's image again; with a mark left, an update
    /// from a stick without an image for that module fails. So ask for one more estimate when
    /// progress() has told kDone or kFailed, of the same stick and before setDirectory().
    /// updateNeeded says then that a module still needs the update from that stick. It is false
    /// also when the images are gone, which leaves the marks.
    /// @return kNoReply, kBadReply, kLost, kSystem
    Result<Estimate> estimate();

    /// Starts the update of the modules that need one.
    ///
    /// The service refuses (kRefused) while an update runs and while the result of the last one
    /// was not yet fetched with progress(). It drops the start without a reply when it has no image
    /// key, or when its own estimate, made at the first start since it runs, finds nothing to
    /// update. A progress query right behind the start finds that out: it is answered either way.
    /// The error is kNoReply then, as for a service that does not answer at all; the text tells
    /// which. What that query learns of the end of a run, the next progress() tells; the outcome of
    /// an earlier run is forgotten once the start is accepted.
    /// @return kRefused, kNoReply, kBadReply, kLost, kSystem
    Error start();

    /// Asks how far the update has come.
    /// @return kNoReply, kBadReply, kLost, kSystem
    Result<Progress> progress();

    /// Asks the service to take no more commands; a running update is finished first. There is no
    /// reply: success says that the command was delivered.
    /// @return kNoReply when the service takes no commands, kLost, kSystem
    Error stop();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace quillon

#endif
