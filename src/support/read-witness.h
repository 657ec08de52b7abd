#pragma once

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "base/handles.h"

namespace quillon {

/// Bytes at the end of an image that belong to its signature.
inline constexpr std::size_t kImageTrailerSize = 534;

using Sha256 = std::array<unsigned char, 32>;
using ImageTrailerBytes = std::array<unsigned char, kImageTrailerSize>;

/// Sees what is really read of an image, so that a verifier can be asked about those very bytes: a
/// file, or the medium below it, may answer a second reading with other ones.
///
/// Whoever reads the image shows each piece, in order, from the first byte on. Of large images the
/// SHA-256 is computed on a thread of the object's own where there is a processor for it.
/// Thread: one at a time.
class ReadWitness
{
public:
    enum class Digest { kWanted, kNotWanted };

    /// @param size  of the image in bytes, trailer included, as it was opened
    ReadWitness(std::int64_t size, Digest digest);

    /// Ends the thread.
    ~ReadWitness();
    ReadWitness(const ReadWitness&) = delete;
    ReadWitness& operator=(const ReadWitness&) = delete;

    /// @param bytes  may be changed afterwards
    /// @param count  64 KiB at most
    void saw(const unsigned char* bytes, std::size_t count);

    /// @return whether as many bytes were seen as the image had when it was opened; more count as
    ///         well, and are not looked at.
    bool sawAll() const { return seen_ >= size_; }

    /// @return whether more bytes were seen than that.
    bool sawMore() const { return seen_ > size_; }

    /// What a verifier is to be asked about. To be called once, at the end.
    /// @param[out] digest   of every byte before the trailer
    /// @return false when there is no answer: the image is shorter than a trailer, not all of it
    ///         was seen, no digest was wanted, or memory ran out.
    bool testify(Sha256& digest, ImageTrailerBytes& trailer);

private:
    using Portion = std::vector<unsigned char>;

    void startThread();
    void endThread();
    void hash(const unsigned char* bytes, std::size_t count);
    void hashHandedOver();
    void handOver();

    const std::int64_t size_;
    const std::int64_t content_;  ///< bytes before the trailer; negative in an image without one
    std::int64_t seen_ = 0;
    ImageTrailerBytes trailer_{};
    UniqueDigestContext context_;
    bool hasFailed_ = false;  ///< written by whoever hashes

    // What is seen is gathered in one portion, while the thread is busy with those before it.
    std::array<Portion, 8> portions_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t handedOver_ = 0;  ///< portions, changed with mutex_ by whoever shows the image
    std::size_t hashed_ = 0;      ///< portions, changed with mutex_ by the thread
    bool isOver_ = false;         ///< with mutex_
    std::thread thread_;          ///< joinable only where there is one
};

}  // namespace quillon
