#include "tools/agent/reading.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "tools/agent/reading_plan.h"

namespace agent {
namespace {

constexpr size_t kBlock = size_t{128} << 10;  // stays in a core's own cache while it is hashed
constexpr size_t kTasksOfThread = 8;
constexpr std::chrono::milliseconds kBetweenStops{50};

struct Result {
    std::vector<ReadFile> files;
    bool isPiece = false;
    bool isLast = false;   ///< of the pieces of its file
    bool isWhole = false;  ///< the piece has its full length
};

/// Carries out tasks, for one thread.
class Reader {
  public:
    explicit Reader(const ReadOptions& options)
        : cutter_(*options.digest, options.segmentSizes), block_(kBlock) {}

    /// `ended` is called between blocks; if it returns true, the result is incomplete.
    template <typename Ended>
    Result run(const Task& task, const std::vector<const Entry*>& files, const Ended& ended) {
        Result result;
        if (task.shared != nullptr) {
            const Entry& entry = *files[task.first];
            ReadFile piece = read(entry, task.shared->opened(entry.path), task, ended);
            result.isPiece = true;
            result.isLast = task.length == kToEnd;
            result.isWhole = piece.bytes == task.length;
            result.files.push_back(std::move(piece));
            return result;
        }
        result.files.reserve(task.end - task.first);
        for (size_t i = task.first; i < task.end && !ended(); ++i)
            result.files.push_back(read(*files[i], OpenFile(files[i]->path), task, ended));
        return result;
    }

  private:
    template <typename Ended>
    ReadFile read(const Entry& entry, const OpenFile& file, const Task& task, const Ended& ended) {
        ReadFile result;
        result.entry = &entry;
        result.status = file.status;
        result.readAt = file.readAt;
        result.problem = file.problem;
        const uint64_t left = file.status.size - std::min(file.status.size, task.offset);
        const uint64_t length = file.problem ? 0 : std::min(left, task.length);
        cutter_.begin(length);
        while (result.bytes < length && !result.problem && !ended()) {
            const auto part =
                static_cast<size_t>(std::min<uint64_t>(kBlock, length - result.bytes));
            const ssize_t got =
                fill(file.descriptor.get(), part, static_cast<off_t>(task.offset + result.bytes));
            if (got < 0) result.problem = strerror(errno);
            if (got <= 0) break;
            result.bytes += static_cast<uint64_t>(got);
            if (!cutter_.add(block_.data(), static_cast<size_t>(got))) return failed(result);
            if (static_cast<size_t>(got) < part) break;  // the file was truncated
        }
        auto digests = cutter_.finish();
        if (!digests) return failed(result);
        result.digests = std::move(*digests);
        return result;
    }

    /// Reads `length` bytes, or fewer at the end of the file. Returns the number read, or a
    /// negative value with errno set.
    ssize_t fill(int fd, size_t length, off_t offset) {
        size_t filled = 0;
        while (filled < length) {
            const ssize_t got = pread(fd, block_.data() + filled, length - filled,
                                      offset + static_cast<off_t>(filled));
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return got;
            if (got == 0) break;
            filled += static_cast<size_t>(got);
        }
        return static_cast<ssize_t>(filled);
    }

    static ReadFile failed(ReadFile& result) {
        result.problem = "computing the digest failed";
        return std::move(result);
    }

    Cutter cutter_;
    std::vector<unsigned char> block_;
};

/// The tasks for the threads, and their results in the order of the tasks. A result waits in the
/// slot of its number, modulo the number of slots.
class Queue {
  public:
    Queue(Plan& plan, size_t slots) : plan_(plan), slots_(slots) {}

    /// False when no task is left, or the queue has ended. Waits for a free slot.
    bool nextTask(Task& task) {
        std::unique_lock lock(mutex_);
        slotFree_.wait(lock, [&] { return ended_ || handedOut_ < taken_ + slots_.size(); });
        if (ended_ || !plan_.next(task)) {
            allHandedOut_ = true;
            resultThere_.notify_one();
            return false;
        }
        ++handedOut_;
        return true;
    }

    void put(uint64_t number, Result&& result) {
        const std::lock_guard lock(mutex_);
        slots_[number % slots_.size()] = std::move(result);
        if (number == taken_) resultThere_.notify_one();
    }

    void fail(const std::exception_ptr& failure) {
        const std::lock_guard lock(mutex_);
        failure_ = failure;
        resultThere_.notify_one();
    }

    /// The next result; nullopt at the end, and once `stop` returns true. Rethrows the exception of
    /// a thread.
    std::optional<Result> take(const std::function<bool()>& stop) {
        std::unique_lock lock(mutex_);
        std::optional<Result>& slot = slots_[taken_ % slots_.size()];
        while (!slot) {
            if (failure_ != nullptr) std::rethrow_exception(failure_);
            if (allHandedOut_ && taken_ == handedOut_) return {};
            resultThere_.wait_for(lock, kBetweenStops);
            lock.unlock();
            const bool stopped = stop();
            lock.lock();
            if (stopped) return {};
        }
        std::optional<Result> result = std::exchange(slot, std::nullopt);
        ++taken_;
        slotFree_.notify_one();
        return result;
    }

    void end() {
        const std::lock_guard lock(mutex_);
        ended_ = true;
        slotFree_.notify_all();
    }

    bool ended() const { return ended_; }

  private:
    Plan& plan_;
    std::mutex mutex_;
    std::condition_variable slotFree_;
    std::condition_variable resultThere_;
    std::vector<std::optional<Result>> slots_;
    uint64_t handedOut_ = 0;
    uint64_t taken_ = 0;
    bool allHandedOut_ = false;
    std::exception_ptr failure_;
    std::atomic<bool> ended_{false};
};

/// Passes files to `take`, with the pieces of large ones joined.
class Consumer {
  public:
    Consumer(const ReadOptions& options, const std::function<void(ReadFile&&)>& take,
             const std::function<bool()>& stop)
        : options_(options), take_(take), stop_(stop) {}

    /// False once no further file is wanted.
    bool consume(Result&& result) {
        for (const ReadFile& part : result.files)
            if (options_.advance) options_.advance(part.bytes);
        if (result.isPiece) {
            join(result);
            if (!result.isLast) return !stop_();
            result.files.front() = std::move(*joined_);
            joined_.reset();
        }
        return std::all_of(result.files.begin(), result.files.end(), [&](ReadFile& file) {
            take_(std::move(file));
            return !stop_();
        });
    }

  private:
    /// Drops pieces after a gap: otherwise their digests would be taken for those of earlier
    /// segments.
    void join(Result& result) {
        ReadFile& piece = result.files.front();
        if (!joined_) {
            joined_ = std::move(piece);
        } else if (!gap_) {
            for (size_t i = 0; i < joined_->digests.size() && i < piece.digests.size(); ++i)
                joined_->digests[i].insert(joined_->digests[i].end(), piece.digests[i].begin(),
                                           piece.digests[i].end());
            joined_->bytes += piece.bytes;
            joined_->problem = std::move(piece.problem);
        }
        gap_ = !result.isLast && (gap_ || !result.isWhole);
    }

    const ReadOptions& options_;
    const std::function<void(ReadFile&&)>& take_;
    const std::function<bool()>& stop_;
    std::optional<ReadFile> joined_;
    bool gap_ = false;
};

size_t usableCores() {
    cpu_set_t cores;
    const bool known = sched_getaffinity(0, sizeof cores, &cores) == 0;
    return known ? static_cast<size_t>(CPU_COUNT(&cores))
                 : std::max(1U, std::thread::hardware_concurrency());
}

/// Threads that carry out the tasks of a queue; the destructor ends the queue and joins the
/// threads.
class Crew {
  public:
    Crew(Queue& queue, const std::vector<const Entry*>& files) : queue_(queue), files_(files) {}
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;
    ~Crew() {
        queue_.end();
        for (std::thread& thread : threads_)
            thread.join();
    }

    /// Starts a thread for each reader, or as many as the system allows. False if it allows none.
    bool start(std::vector<Reader>& readers) {
        threads_.reserve(readers.size());
        try {
            for (Reader& reader : readers)
                threads_.emplace_back([this, &reader] { work(reader); });
        } catch (const std::system_error&) {
            // Work with the threads that were started.
        }
        return !threads_.empty();
    }

  private:
    void work(Reader& reader) {
        try {
            const auto ended = [&] { return queue_.ended(); };
            for (Task task; queue_.nextTask(task);)
                queue_.put(task.number, reader.run(task, files_, ended));
        } catch (...) {
            queue_.fail(std::current_exception());
        }
    }

    Queue& queue_;
    const std::vector<const Entry*>& files_;
    std::vector<std::thread> threads_;
};

}  // namespace

void readFiles(const std::vector<const Entry*>& files, const ReadOptions& options,
               const std::function<void(ReadFile&&)>& take, const std::function<bool()>& stop) {
    const size_t jobs = options.jobs != 0 ? options.jobs : usableCores();
    Plan plan(files, options.segmentSizes);
    Consumer consumer(options, take, stop);
    std::vector<Reader> readers;
    for (size_t i = 0; i < jobs; ++i)
        readers.emplace_back(options);
    if (jobs > 1) {
        Queue queue(plan, jobs * kTasksOfThread);
        Crew crew(queue, files);
        if (crew.start(readers)) {
            while (std::optional<Result> result = queue.take(stop))
                if (!consumer.consume(std::move(*result))) break;
            return;
        }
    }
    for (Task task; plan.next(task) && !stop();) {
        Result result = readers.front().run(task, files, stop);
        if (stop() || !consumer.consume(std::move(result))) break;  // a result may be cut off then
    }
}

}  // namespace agent
