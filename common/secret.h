// Wiping of records that hold a password: freed or reused memory would still show it, in a core
// dump for example.
#ifndef COMMON_SECRET_H
#define COMMON_SECRET_H

#include <cstring>
#include <type_traits>

namespace kspool {

/// Overwrites a record at the end of the scope. explicit_bzero(), since a compiler may drop
/// memset() of memory that nobody reads again.
template <typename Record>
class ScopedWipe {
    static_assert(std::is_trivially_copyable_v<Record>);

  public:
    explicit ScopedWipe(Record& record) noexcept : record_(record) {}
    ~ScopedWipe() { explicit_bzero(&record_, sizeof record_); }
    ScopedWipe(const ScopedWipe&) = delete;
    ScopedWipe& operator=(const ScopedWipe&) = delete;

  private:
    Record& record_;
};

}  // namespace kspool

#endif
