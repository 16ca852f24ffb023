// What a test hears of the library's messages.
#ifndef TESTS_SUPPORT_EAR_H
#define TESTS_SUPPORT_EAR_H

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/support.h"

struct Heard {
    uint32_t level, status;
    std::string text;
    bool operator==(const Heard&) const = default;
};

/// Collects messages while it lives.
class Ear {
  public:
    Ear() { qlxSetSink(hear, this); }
    ~Ear() { qlxSetSink(nullptr, nullptr); }
    Ear(const Ear&) = delete;
    Ear& operator=(const Ear&) = delete;
    std::vector<Heard> heard;

  private:
    static void hear(uint32_t level, uint32_t status, const char* text, void* ear) {
        static_cast<Ear*>(ear)->heard.push_back({level, status, text});
        if (status == 3) ErrorA(9, "of the sink");
        errno = EDOM;
    }
};

#endif
