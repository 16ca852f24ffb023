#include "sandbox/http/logins.h"

#include <microhttpd.h>

#include <exception>
#include <utility>

namespace sandbox {

Logins::Logins(const Accounts& accounts) : accounts_(accounts), thread_([this] { work(); }) {}

bool Logins::suspend(MHD_Connection* connection, const std::string& header, Login& login) {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (stopping_) return false;
    waiting_.push_back({connection, header, &login});
    login.asked = true;
    MHD_suspend_connection(connection);
    changed_.notify_one();
    return true;
}

Logins::Job Logins::take(bool newest) {
    Job job = std::move(newest ? waiting_.back() : waiting_.front());
    newest ? waiting_.pop_back() : waiting_.pop_front();
    return job;
}

/// When the check fails there is no verdict, and the handler closes the connection: the client does
/// not learn whether its login is valid, and may try again.
void Logins::decide(const Job& job) const noexcept {
    try {
        job.login->verdict = accounts_.check(job.header);
    } catch (const std::exception&) {
        job.login->verdict.reset();
    }
}

void Logins::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (bool newest = true; !stopping_; newest = !newest) {
        changed_.wait(lock, [this] { return stopping_ || !waiting_.empty(); });
        if (stopping_) break;
        const Job job = take(newest);
        lock.unlock();
        decide(job);
        MHD_resume_connection(job.connection);
        lock.lock();
    }
    for (const Job& job : waiting_)
        MHD_resume_connection(job.connection);
    waiting_.clear();
}

void Logins::stop() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
        changed_.notify_one();
    }
    if (thread_.joinable()) thread_.join();
}

}  // namespace sandbox
