// The C++ interface of kspool, for C++20: owners, spans, ranges and results over the C functions,
// whose headers document arguments, statuses, times and threads.
//
// 1. Owners take the handle that a C function returns, and release it on destruction. They are
//    movable, not copyable. An owner without a handle is safe: its calls fail as for a NULL handle.
// 2. Calls. session.call(MBDirCreate, "/a") calls a C function with the handle as first argument;
//    session.ask<uint32_t>(MBGetTime) also returns what the function stores in its last argument.
// 3. Failures are returned, never thrown. A callable that throws ends the program by
//    std::terminate(): no exception may pass through C code. The body of a loop may throw.
// 4. Ranges are input ranges. A second loop continues with the next item. A loop ends after the
//    last item or at a failure; status() tells which. A range cannot be moved: name it to make a
//    view of it (auto lines = ...; lines | std::views::take(3)).
// 5. Spans are not copied. An empty span stands for an output that is not wanted. A span of another
//    length than the keys gives CR_STATUS_INVALID_PARAMETER, and nothing is done.
#ifndef KSPOOL_HPP
#define KSPOOL_HPP

#include <concepts>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <utility>

#include "kscache.h"
#include "mb.h"
#include "platform/po.h"
#include "platform/status.h"

namespace kspool {

/// A status, true for success alone.
class [[nodiscard]] Status {
  public:
    constexpr Status(uint32_t code = CR_STATUS_OK) noexcept : code_(code) {}
    constexpr uint32_t code() const noexcept { return code_; }
    const char* text() const noexcept { return CRStatusToStringA(code_); }
    constexpr explicit operator bool() const noexcept { return code_ == CR_STATUS_OK; }
    friend constexpr bool operator==(Status, Status) noexcept = default;
    static Status slot() noexcept { return *__cr_errno_location(); }  ///< this thread's

  private:
    uint32_t code_;
};

/// A value, or the status of a failure, which is why there is no ==: compare *result or status().
/// * and -> need a value, as with std::optional.
template <typename T>
class [[nodiscard]] Result : std::optional<T> {
    using Value = std::optional<T>;

  public:
    using Value::operator bool, Value::operator*, Value::operator->, Value::value_or;
    Result(Status failure) noexcept : status_(failure) {}
    Result(T value) noexcept : std::optional<T>(std::move(value)) {}
    Status status() const noexcept { return status_; }

  private:
    Status status_;
};

/// The type that a C function fills to make a Value: Value itself, or the handle of an owner.
template <typename Value, typename = void>
struct RawOf : std::type_identity<Value> {};
template <typename Owning>
struct RawOf<Owning, std::void_t<typename Owning::Raw>> : std::type_identity<typename Owning::Raw> {
};

/// Calls a C function whose last argument receives the value. A record's `size` is set before.
template <typename Value>
Result<Value> ask(auto* function, auto... arguments) noexcept {
    typename RawOf<Value>::type raw{};
    if constexpr (requires { raw.size; }) raw.size = sizeof raw;
    if (const Status status = function(arguments..., &raw); !status) return status;
    return Value(raw);
}

/// Owns a C handle: rules 1 and 2.
template <typename Handle, auto freeHandle>
class Owner {
  public:
    using Raw = Handle*;
    Owner() noexcept = default;
    explicit Owner(std::same_as<Handle> auto* handle) noexcept : handle_(handle) {}
    Handle* get() noexcept { return handle_.get(); }
    const Handle* get() const noexcept { return handle_.get(); }
    Handle* release() noexcept { return handle_.release(); }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

    /// A returned uint32_t is taken for a status; only MBEnableResiliency() returns another number.
    auto call(auto* function, auto... arguments) noexcept {
        using T = decltype(function(get(), arguments...));
        return std::conditional_t<std::is_same_v<T, uint32_t>, Status, T>(
            function(get(), arguments...));
    }
    template <typename Value>
    Result<Value> ask(auto* function, auto... arguments) noexcept {
        return kspool::ask<Value>(function, get(), arguments...);
    }

  private:
    std::unique_ptr<Handle, std::integral_constant<decltype(freeHandle), freeHandle>> handle_;
};

/// A text that the library allocated; c_str() is "" for an owner without one.
class Text : public Owner<char, std::free> {
  public:
    using Owner::Owner;
    const char* c_str() const noexcept { return *this ? get() : ""; }
    operator std::string_view() const noexcept { return c_str(); }
};

/// The items of a source as an input range: rule 4. A source has a type Reference and protected
/// functions item() and next(), which returns CR_STATUS_NOT_FOUND at the end.
template <typename Source>
class [[nodiscard]] Range : public Source {
  public:
    struct Iterator {
        using difference_type = std::ptrdiff_t;
        using value_type = std::remove_cvref_t<typename Source::Reference>;
        typename Source::Reference operator*() const noexcept { return range->item(); }
        Iterator& operator++() noexcept { return range->settle(range->next()), *this; }
        void operator++(int) noexcept { ++*this; }
        bool operator==(std::default_sentinel_t) const noexcept { return !range->hasItem_; }
        Range* range;
    };
    using Source::Source;
    Range(const Range&) = delete;
    Iterator begin() noexcept { return ++Iterator{this}; }
    std::default_sentinel_t end() const noexcept { return {}; }
    /// CR_STATUS_OK, or the failure that ended the last loop.
    Status status() const noexcept { return status_; }

  private:
    void settle(Status step) noexcept {
        hasItem_ = step == CR_STATUS_OK;
        status_ = step == CR_STATUS_NOT_FOUND ? Status() : step;
    }
    bool hasItem_ = false;
    Status status_;
};

/// The key of a digest, whose length must be that of its type.
template <CRFPType type = CR_FP_SHA256>
constexpr KSCacheKey keyOf(
    std::span<const uint8_t, type == CR_FP_SHA256 ? 32 : 16> digest) noexcept {
    return {digest.data(), type};
}

/// A cache file that is held: ask<FileHold>(KSCacheHoldFile, path).
using FileHold = Owner<KSCacheHold, KSCacheReleaseFile>;

/// Source of a cache's entries. KSCacheNext() documents what a loop may do with the cache.
class EntrySource {
  public:
    using Reference = const KSCacheNode&;
    explicit EntrySource(const KSCache* cache) noexcept : cache_(cache) {}

  protected:
    Status next() noexcept { return KSCacheNext(cache_, &cursor_, &node_); }
    Reference item() const noexcept { return *node_; }

  private:
    const KSCache* cache_;
    KSCacheCursor cursor_{};
    const KSCacheNode* node_ = nullptr;
};
using Entries = Range<EntrySource>;

/// A fingerprint cache. Files and limits are C calls: cache.call(KSCacheCheck, 100),
/// cache.ask<uint64_t>(KSCacheReplaceFile, path, hold).
class Cache : public Owner<KSCache, KSCacheDestroy> {
    using Keys = std::span<const KSCacheKey>;
    using Values = std::span<uint64_t>;
    using Statuses = std::span<uint32_t>;

  public:
    using Owner::Owner;
    /// For this number of entries. On failure there is no handle; Status::slot() has the reason.
    explicit Cache(uint64_t entries, KSCacheAddCallback callback = nullptr,
                   void* callbackArg = nullptr) noexcept
        : Owner(KSCacheCreate(KSCacheAreaFor(entries), KSCacheBitsFor(entries), 0, callback,
                              callbackArg)) {}
    /// Calls onKnown(addArg) for each add of a known key with an argument. `onKnown` stays the
    /// caller's and must live as long as the cache.
    template <std::invocable<void*> OnKnown>
    Cache(uint64_t entries, OnKnown& onKnown) noexcept
        : Cache(entries, run<OnKnown>, const_cast<void*>(static_cast<const void*>(&onKnown))) {}
    /// True for a new entry, CR_STATUS_EXISTS for a known one.
    Status add(KSCacheKey key, uint64_t value, void* addArg = nullptr) noexcept {
        return call(KSCacheAdd, key.fingerprint, key.type, value, addArg);
    }
    Result<uint64_t> fetch(KSCacheKey key) const noexcept {
        return kspool::ask<uint64_t>(KSCacheFetch, get(), key.fingerprint, key.type);
    }
    Result<uint64_t> exists(KSCacheKey key) noexcept {
        return ask<uint64_t>(KSCacheExists, key.fingerprint, key.type);
    }
    Status erase(KSCacheKey key) noexcept { return call(KSCacheDelete, key.fingerprint, key.type); }
    Status fetchBatch(Keys keys, Values values = {}, Statuses statuses = {}) const noexcept {
        if (!fit(keys, values, statuses)) return CR_STATUS_INVALID_PARAMETER;
        return KSCacheFetchBatch(get(), keys.data(), keys.size(), given(values), given(statuses));
    }
    Status existsBatch(Keys keys, Values values = {}, Statuses statuses = {}) noexcept {
        if (!fit(keys, values, statuses)) return CR_STATUS_INVALID_PARAMETER;
        return call(KSCacheExistsBatch, keys.data(), keys.size(), given(values), given(statuses));
    }
    Status addBatch(Keys keys, std::span<const uint64_t> values, Statuses statuses = {},
                    std::span<void* const> addArgs = {}) noexcept {
        if (values.size() != keys.size() || !fit(keys, statuses, addArgs))
            return CR_STATUS_INVALID_PARAMETER;
        return KSCacheAddBatch(get(), keys.data(), values.data(), given(addArgs), keys.size(),
                               given(statuses));
    }
    Entries entries() const noexcept { return Entries(get()); }

  private:
    template <typename OnKnown>
    static void run(void* addArg, void* callable) noexcept {
        (*static_cast<OnKnown*>(callable))(addArg);
    }
    template <typename... Spans>
    static bool fit(Keys keys, Spans... spans) noexcept {
        return ((spans.empty() || spans.size() == keys.size()) && ...);
    }
    template <typename T>
    static T* given(std::span<T> span) noexcept {
        return span.empty() ? nullptr : span.data();
    }
};

/// A PO, released by POReset().
struct Po : PO {
    Po() noexcept : PO{} {}
    Po(Po&& other) noexcept : PO(std::exchange(static_cast<PO&>(other), {})) {}
    Po& operator=(Po&& other) noexcept { return std::swap<PO>(*this, other), *this; }
    ~Po() { POReset(this); }
    /// Field `index`, from 0, valid as long as the PO; data() is NULL beyond the last field.
    std::string_view field(uint32_t index) const noexcept {
        size_t length = 0;
        const char* bytes = POGetField(this, index, &length);
        return {bytes, bytes != nullptr ? length : 0};
    }
};

/// Source of what a query found: an empty range if nothing. Items are valid as long as the source.
template <typename Item, typename Shown, auto findFirst, auto findNext>
class QuerySource : public Owner<MBPOCursor, MBPOFindClose> {
  public:
    using Reference = Shown;
    uint32_t count() const noexcept { return count_; }
    QuerySource(MBSession* session, uint32_t dataselection, const MBPOFilter& filter) noexcept {
        Owner::operator=(Owner(findFirst(session, dataselection, &filter, &item_, &count_)));
        if (!*this) failure_ = Status::slot();
    }

  protected:
    Status next() noexcept {
        if (!*this) return failure_;
        return std::exchange(isNew_, false) ? Status() : findNext(get(), &item_);
    }
    Reference item() const noexcept { return item_; }

  private:
    Item item_{};
    uint32_t count_ = 0;
    bool isNew_ = true;  ///< no loop has visited the first item yet
    Status failure_ = CR_STATUS_NOT_FOUND;
};
/// Lines, each followed by a NUL.
using Lines = Range<QuerySource<char*, std::string_view, MBPOStringFindFirst, MBPOStringFindNext>>;
/// POs; each step overwrites the last one. A loop ends at an invalid line, the next loop behind it.
using Records = Range<QuerySource<Po, const Po&, MBPOFindFirst, MBPOFindNext>>;

/// A filter that matches every PO. Its criteria count from 1: criterion10 is for field(9).
struct Filter : MBPOFilter {
    Filter() noexcept : MBPOFilter{} {
        size = sizeof(MBPOFilter);
        MBPOFilterInit(this);
    }
};

/// A session, of MBInit() or another create call. Only call(MBAbort) may run during another call.
class Session : public Owner<MBSession, MBShutdown> {
  public:
    using Owner::Owner;
    Lines findLines(uint32_t dataselection, const MBPOFilter& filter = Filter()) noexcept {
        return Lines(get(), dataselection, filter);
    }
    Records findRecords(uint32_t dataselection, const MBPOFilter& filter = Filter()) noexcept {
        return Records(get(), dataselection, filter);
    }
};

}  // namespace kspool

#endif
