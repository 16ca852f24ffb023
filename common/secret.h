// Records that hold a password are wiped when they go.
#ifndef COMMON_SECRET_H
#define COMMON_SECRET_H

#include <cstring>
#include <type_traits>

namespace kspool {

/// Overwrites a record at its end, in a way that no compiler leaves out.
template <typename Record>
class WipedAtEnd {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    explicit WipedAtEnd(Record& record) noexcept : record_(record) {}
    ~WipedAtEnd() { explicit_bzero(&record_, sizeof record_); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

  private:
    Record& record_;
};

}  // namespace kspool

#endif
