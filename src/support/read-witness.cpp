#include "support/read-witness.h"

#include <algorithm>
#include <exception>
#include <new>

#include "support/processors.h"

namespace quillon {
namespace {

/// Of so many bytes the hash takes long enough to make a thread's start cheap beside it.
constexpr std::size_t kPortion = 1U << 20U;

}  // namespace

ReadWitness::ReadWitness(std::int64_t size, Digest digest)
    : size_(size), content_(size - static_cast<std::int64_t>(kImageTrailerSize))
{
    if (digest == Digest::kNotWanted) {
        return;
    }
    context_.reset(EVP_MD_CTX_new());
    hasFailed_ = !context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1;
    if (content_ < static_cast<std::int64_t>(2 * kPortion) || !hasAnotherProcessor()) {
        return;
    }
    try {
        gathered_.reserve(kPortion);
        handedOver_.reserve(kPortion);
        usesThread_ = true;
    } catch (const std::bad_alloc&) {
        // Then it is hashed as it comes.
    }
}

ReadWitness::~ReadWitness()
{
    awaitThread();
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
    if (!usesThread_) {
        hasFailed_ = hasFailed_ || EVP_DigestUpdate(context_.get(), bytes, count) != 1;
        return;
    }
    if (gathered_.size() + count > kPortion) {
        handOver();
    }
    gathered_.insert(gathered_.end(), bytes, bytes + count);
}

void ReadWitness::handOver()
{
    awaitThread();
    handedOver_.swap(gathered_);
    gathered_.clear();
    const auto update = [this] {
        hasFailed_ = hasFailed_ ||
                     EVP_DigestUpdate(context_.get(), handedOver_.data(), handedOver_.size()) != 1;
    };
    try {
        thread_ = std::async(std::launch::async, update);
    } catch (const std::exception&) {
        update();  // no thread to be had: then here
    }
}

void ReadWitness::awaitThread()
{
    if (thread_.valid()) {
        thread_.get();
    }
}

bool ReadWitness::testify(Sha256& digest, ImageTrailerBytes& trailer)
{
    if (!context_ || content_ < 0 || !sawAll()) {
        return false;
    }
    if (usesThread_) {
        handOver();
        awaitThread();
    }
    trailer = trailer_;
    return !hasFailed_ && EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1;
}

}  // namespace quillon
