#include "tools/agent/segments.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "common/owned.h"
#include "platform/status.h"
#include "tools/shared/failure.h"

namespace agent {
namespace {

constexpr DigestKind kKinds[] = {
    {"sha256", "SHA256", CR_FP_SHA256},
    {"md5", "MD5", CR_FP_MD5},
};

class File {
  public:
    explicit File(const std::string& path)
        : fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY)) {}
    int fd() const { return fd_.get(); }

    /// Asked again, since the file may have been replaced after the walk met it.
    bool isRegular() const {
        struct stat status {};
        return fstat(fd(), &status) == 0 && S_ISREG(status.st_mode);
    }

    /// Fills the buffer up to the end of the file. Negative, with errno set, when reading fails.
    ssize_t fill(std::vector<unsigned char>& buffer) const {
        size_t length = 0;
        while (length < buffer.size()) {
            const ssize_t got = read(fd(), buffer.data() + length, buffer.size() - length);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return got;
            if (got == 0) break;
            length += static_cast<size_t>(got);
        }
        return static_cast<ssize_t>(length);
    }

  private:
    kspool::Descriptor fd_;
};

}  // namespace

const DigestKind* digestKind(const std::string& name) {
    const auto* kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                    [&](const DigestKind& k) { return name == k.name; });
    return kind != std::end(kKinds) ? kind : nullptr;
}

std::vector<std::string> digestNames() {
    std::vector<std::string> names;
    for (const DigestKind& kind : kKinds)
        names.emplace_back(kind.name);
    return names;
}

struct Segmenter::Crypto {
    struct Free {
        void operator()(EVP_MD* md) const { EVP_MD_free(md); }
        void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
    };
    std::unique_ptr<EVP_MD, Free> algorithm;
    std::unique_ptr<EVP_MD_CTX, Free> context;
};

Segmenter::Segmenter(const DigestKind& kind, size_t segmentSize)
    : crypto_(std::make_unique<Crypto>()), buffer_(segmentSize) {
    crypto_->algorithm.reset(EVP_MD_fetch(nullptr, kind.provided, nullptr));
    crypto_->context.reset(EVP_MD_CTX_new());
    if (crypto_->algorithm == nullptr || crypto_->context == nullptr) {
        throw tool::Failure(std::string("the crypto library does not provide ") + kind.provided);
    }
}

Segmenter::~Segmenter() = default;

bool Segmenter::digestOf(size_t length, Digest& digest) {
    EVP_MD_CTX* context = crypto_->context.get();
    return EVP_DigestInit_ex2(context, crypto_->algorithm.get(), nullptr) == 1 &&
           EVP_DigestUpdate(context, buffer_.data(), length) == 1 &&
           EVP_DigestFinal_ex(context, digest.data(), nullptr) == 1;
}

std::optional<std::string> Segmenter::cutFile(
    const std::string& path,
    const std::function<void(const Digest& digest, size_t length)>& segment) {
    const File file(path);
    if (file.fd() < 0) return strerror(errno);
    if (!file.isRegular()) return "is no regular file any more";
    for (;;) {
        const ssize_t got = file.fill(buffer_);
        if (got < 0) return strerror(errno);
        if (got == 0) return {};
        const auto length = static_cast<size_t>(got);
        Digest digest{};
        if (!digestOf(length, digest)) return "computing the digest failed";
        segment(digest, length);
        if (length < buffer_.size()) return {};
    }
}

}  // namespace agent
