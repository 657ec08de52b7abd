#include "support/read-witness.h"

#include <algorithm>
#include <exception>

#include "support/processors.h"

namespace quillon {
namespace {

constexpr std::size_t kPortion = 1U << 18U;

/// The hash of so many bytes takes long enough to make a thread's start cheap beside it.
constexpr std::int64_t kWorthAThread = 2U << 20U;

}  // namespace

ReadWitness::ReadWitness(std::int64_t size, Digest digest)
    : size_(size), content_(size - static_cast<std::int64_t>(kImageTrailerSize))
{
    if (digest == Digest::kNotWanted) {
        return;
    }
    context_.reset(EVP_MD_CTX_new());
    hasFailed_ = !context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1;
    if (content_ >= kWorthAThread && hasAnotherProcessor()) {
        startThread();
    }
}

ReadWitness::~ReadWitness()
{
    endThread();
}

void ReadWitness::startThread()
{
    try {
        for (Portion& portion : portions_) {
            portion.reserve(kPortion);
        }
        thread_ = std::thread([this] { hashHandedOver(); });
    } catch (const std::exception&) {
        // No memory or no thread to be had: then the image is hashed as it is seen.
    }
}

/// Waits until all that was handed over is hashed.
void ReadWitness::endThread()
{
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isOver_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void ReadWitness::saw(const unsigned char* bytes, std::size_t count)
{
    const std::int64_t first = seen_;
    seen_ += static_cast<std::int64_t>(count);
    if (!context_ || content_ < 0) {
        return;
    }
    const std::int64_t signedBytes = std::clamp<std::int64_t>(content_ - first, 0, seen_ - first);
    if (signedBytes > 0) {
        hash(bytes, static_cast<std::size_t>(signedBytes));
    }
    const std::int64_t end = std::min(seen_, size_);
    if (first + signedBytes < end) {
        std::copy(bytes + signedBytes, bytes + (end - first),
                  trailer_.begin() + (first + signedBytes - content_));
    }
}

void ReadWitness::hash(const unsigned char* bytes, std::size_t count)
{
    if (!thread_.joinable()) {
        hasFailed_ = hasFailed_ || EVP_DigestUpdate(context_.get(), bytes, count) != 1;
        return;
    }
    if (portions_[handedOver_ % portions_.size()].size() + count > kPortion) {
        handOver();
    }
    Portion& gathered = portions_[handedOver_ % portions_.size()];
    gathered.insert(gathered.end(), bytes, bytes + count);
}

/// What the thread does.
void ReadWitness::hashHandedOver()
{
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return isOver_ || hashed_ != handedOver_; });
        if (hashed_ == handedOver_) {
            return;
        }
        lock.unlock();
        Portion& portion = portions_[hashed_ % portions_.size()];
        hasFailed_ =
            hasFailed_ || EVP_DigestUpdate(context_.get(), portion.data(), portion.size()) != 1;
        portion.clear();
        lock.lock();
        ++hashed_;
        changed_.notify_one();
    }
}

/// Goes on with the next portion, as soon as that is hashed.
void ReadWitness::handOver()
{
    std::unique_lock<std::mutex> lock(mutex_);
    ++handedOver_;
    changed_.notify_one();
    changed_.wait(lock, [this] { return handedOver_ - hashed_ < portions_.size(); });
}

bool ReadWitness::testify(Sha256& digest, ImageTrailerBytes& trailer)
{
    if (!context_ || content_ < 0 || !sawAll()) {
        return false;
    }
    if (thread_.joinable()) {
        handOver();
        endThread();
    }
    trailer = trailer_;
    return !hasFailed_ && EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1;
}

}  // namespace quillon
