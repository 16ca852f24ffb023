#include "tools/agent/segments.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>
#include <memory>

#include "platform/status.h"
#include "tools/shared/failure.h"

namespace agent {
namespace {

constexpr DigestKind kDigestKinds[] = {
    {"sha256", "SHA256", CR_FP_SHA256, 32},
    {"md5", "MD5", CR_FP_MD5, 16},
    {"sha1", "SHA1", CR_FP_SHA1_16, 16},
};

struct FreeCrypto {
    void operator()(EVP_MD* md) const { EVP_MD_free(md); }
    void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};

}  // namespace

const DigestKind* digestKind(const std::string& name) {
    const auto* kind = std::find_if(std::begin(kDigestKinds), std::end(kDigestKinds),
                                    [&](const DigestKind& k) { return name == k.name; });
    return kind != std::end(kDigestKinds) ? kind : nullptr;
}

const DigestKind* digestKind(uint32_t fingerprintType) {
    const auto* kind =
        std::find_if(std::begin(kDigestKinds), std::end(kDigestKinds),
                     [&](const DigestKind& k) { return k.fingerprintType == fingerprintType; });
    return kind != std::end(kDigestKinds) ? kind : nullptr;
}

std::vector<std::string> digestNames() {
    std::vector<std::string> names;
    for (const DigestKind& kind : kDigestKinds)
        names.emplace_back(kind.name);
    return names;
}

/// The data cut in one segment size.
class Cutter::Cut {
  public:
    Cut(const DigestKind& kind, uint64_t segmentSize)
        : size(segmentSize),
          digestSize_(kind.size),
          algorithm_(EVP_MD_fetch(nullptr, kind.provided, nullptr)),
          context_(EVP_MD_CTX_new()) {
        if (algorithm_ != nullptr && context_ != nullptr) return;
        throw tool::Failure(std::string("the crypto library does not provide ") + kind.provided);
    }

    bool add(const unsigned char* data, size_t length) {
        while (length > 0) {
            if (filled_ == 0 && EVP_DigestInit_ex2(context_.get(), algorithm_.get(), nullptr) != 1)
                return false;
            const size_t part = std::min<uint64_t>(length, size - filled_);
            if (EVP_DigestUpdate(context_.get(), data, part) != 1) return false;
            data += part;
            length -= part;
            filled_ += part;
            if (filled_ == size && !endSegment()) return false;
        }
        return true;
    }

    bool finish() { return filled_ == 0 || endSegment(); }

    void begin() {
        filled_ = 0;
        digests.clear();
    }

    uint64_t size;
    size_t source = 0;  ///< the cut that computes the digests for this one; often itself
    std::vector<Digest> digests;

  private:
    bool endSegment() {
        Digest& digest = digests.emplace_back();
        filled_ = 0;
        if (EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) != 1) return false;
        std::fill(digest.begin() + digestSize_, digest.end(), uint8_t{0});
        return true;
    }

    std::ptrdiff_t digestSize_;
    std::unique_ptr<EVP_MD, FreeCrypto> algorithm_;
    std::unique_ptr<EVP_MD_CTX, FreeCrypto> context_;
    uint64_t filled_ = 0;  ///< bytes of the segment that is not complete
};

Cutter::Cutter(const DigestKind& kind, const std::vector<uint64_t>& segmentSizes) {
    for (const uint64_t size : segmentSizes)
        cuts_.emplace_back(kind, size);
}

Cutter::~Cutter() = default;
Cutter::Cutter(Cutter&&) noexcept = default;

void Cutter::begin(uint64_t length) {
    // All sizes for which the data are one segment give the same digest: compute it only once.
    size_t whole = cuts_.size();
    for (size_t i = 0; i < cuts_.size(); ++i) {
        const bool takesWhole = cuts_[i].size >= length;
        if (takesWhole && whole == cuts_.size()) whole = i;
        cuts_[i].source = takesWhole ? whole : i;
        cuts_[i].begin();
    }
}

bool Cutter::add(const unsigned char* data, size_t length) {
    for (size_t i = 0; i < cuts_.size(); ++i)
        if (cuts_[i].source == i && !cuts_[i].add(data, length)) return false;
    return true;
}

std::optional<std::vector<std::vector<Digest>>> Cutter::finish() {
    std::vector<std::vector<Digest>> all;
    all.reserve(cuts_.size());
    for (size_t i = 0; i < cuts_.size(); ++i) {
        if (cuts_[i].source != i) {
            all.push_back(all[cuts_[i].source]);
        } else {
            if (!cuts_[i].finish()) return {};
            all.push_back(std::move(cuts_[i].digests));
        }
    }
    return all;
}

}  // namespace agent
