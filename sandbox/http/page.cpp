#include "sandbox/http/page.h"

#include <openssl/evp.h>
#include <openssl/sha.h>

#include <array>
#include <string>
#include <string_view>

#include "sandbox/texts.h"

namespace sandbox {
namespace {

/// The policy's source expression for an inline element: 'sha256-BASE64' of the text between its
/// tags.
std::string sourceOf(std::string_view element) {
    const std::string open = "<" + std::string(element) + ">";
    const size_t start = kPageText.find(open) + open.size();
    const std::string_view text =
        kPageText.substr(start, kPageText.find("</" + std::string(element) + ">", start) - start);
    std::array<uint8_t, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const uint8_t*>(text.data()), text.size(), digest.data());
    std::array<uint8_t, 4 * (SHA256_DIGEST_LENGTH + 2) / 3 + 1> encoded{};
    EVP_EncodeBlock(encoded.data(), digest.data(), SHA256_DIGEST_LENGTH);
    return "'sha256-" + std::string(reinterpret_cast<const char*>(encoded.data())) + "'";
}

}  // namespace

Answer page() {
    static const std::string policy =
        "default-src 'none'; script-src " + sourceOf("script") + "; style-src " +
        sourceOf("style") +
        "; connect-src 'self'; img-src data:; base-uri 'none'; form-action 'none'; "
        "frame-ancestors 'none'";
    Answer answer;
    answer.type = "text/html; charset=utf-8";
    answer.body = kPageText;
    answer.headers = {{"Content-Security-Policy", policy},
                      {"X-Content-Type-Options", "nosniff"},
                      {"Referrer-Policy", "no-referrer"},
                      {"Cache-Control", "no-store"}};
    return answer;
}

}  // namespace sandbox
