// Cutting files into segments and fingerprinting them.
//
// Thread rule: a Cutter works for one thread, on one file at a time.
#ifndef TOOLS_AGENT_SEGMENTS_H
#define TOOLS_AGENT_SEGMENTS_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace agent {

/// Shorter digests are padded with zeros.
using Digest = std::array<uint8_t, 32>;

/// A digest algorithm by its command-line name, with the fingerprint type it makes.
struct DigestKind {
    const char* name;      ///< "sha256"
    const char* provided;  ///< its name in the crypto library
    uint32_t fingerprintType;
    uint32_t size;  ///< bytes that count: SHA-1 is cut to 16
};

/// Bytes of a segment, as the programs take them.
inline constexpr uint64_t kSmallestSegment = 512;
inline constexpr uint64_t kLargestSegment = uint64_t{1} << 30;

/// NULL for an unknown name or type.
const DigestKind* digestKind(const std::string& name);
const DigestKind* digestKind(uint32_t fingerprintType);

/// The names, for help and checks.
std::vector<std::string> digestNames();

/// Fingerprints the segments of some data for several segment sizes at once.
class Cutter {
  public:
    /// Throws Failure when the crypto library does not provide the algorithm.
    Cutter(const DigestKind& kind, const std::vector<uint64_t>& segmentSizes);
    ~Cutter();
    Cutter(Cutter&&) noexcept;
    Cutter& operator=(Cutter&&) = delete;

    /// Starts new data of at most `length` bytes.
    void begin(uint64_t length);

    /// False when the crypto library fails.
    bool add(const unsigned char* data, size_t length);

    /// The digests of all data since begin(), for each segment size; empty when the crypto library
    /// fails. The last segment may be shorter than the others.
    std::optional<std::vector<std::vector<Digest>>> finish();

  private:
    class Cut;

    std::vector<Cut> cuts_;
};

}  // namespace agent

#endif
