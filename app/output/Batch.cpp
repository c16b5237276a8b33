#include "app/output/Batch.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <exception>
#include <new>
#include <thread>

#include "app/Status.h"
#include "app/cli/Console.h"
#include "app/pipeline/Text.h"

namespace qvapp {

namespace {

// A stream whose bytes are kept in memory until it is closed.
class MemoryStream {
  public:
    MemoryStream() : file_(::open_memstream(&data_, &size_)) {}
    ~MemoryStream() {
        if (file_) std::fclose(file_);
        std::free(data_);
    }
    MemoryStream(const MemoryStream&) = delete;
    MemoryStream& operator=(const MemoryStream&) = delete;
    std::FILE* file() const { return file_ ? file_ : stderr; }
    std::string take() {
        if (!file_) return {};
        std::fclose(file_);
        file_ = nullptr;
        std::string text(data_ ? data_ : "", size_);
        return text;
    }

  private:
    char* data_ = nullptr;
    std::size_t size_ = 0;
    std::FILE* file_;
};

}  // namespace

Outcome guardedJob(const std::string& input, std::FILE* err, const std::function<Outcome()>& job) {
    std::string why;
    try {
        Outcome done = job();
        if (done.sentence().empty()) return done;
        std::fprintf(err, "qvxml: %s\n", shown(done.sentence()).c_str());
        return Outcome::told(done.status());
    } catch (const std::bad_alloc&) {
        std::fprintf(err, "qvxml: there is not enough memory for %s\n",
                     shown(inQuotes(input)).c_str());
        return Outcome::told(kExitUnreadable);
    } catch (const std::exception& e) {
        why = e.what();
    } catch (...) {
        why = "an exception of no known kind";
    }
    std::fprintf(
        err, "qvxml: %s\n",
        shown(inQuotes(input) + " failed at a fault qvxml did not foresee: " + why).c_str());
    return Outcome::told(kExitFailed);
}

Batch::Batch(int jobs, std::string verb, bool showBar)
    : jobs_(jobs < 1 ? 1 : jobs),
      verb_(std::move(verb)),
      bar_(showBar && ::isatty(::fileno(stderr))) {}

int Batch::jobsFor(int requested, std::size_t inputs) {
    int n = requested;
    if (n <= 0) n = static_cast<int>(std::thread::hardware_concurrency());
    if (n <= 0) n = 1;
    if (static_cast<std::size_t>(n) > inputs) n = static_cast<int>(inputs);
    return n < 1 ? 1 : n;
}

std::vector<JobResult> Batch::run(
    const std::vector<std::string>& labels,
    const std::function<Outcome(std::size_t, std::FILE*, std::FILE*)>& work, bool stream) {
    const std::size_t count = labels.size();
    std::vector<JobResult> results(count);
    std::vector<bool> finished(count, false);
    std::mutex mutex;  // guards the results, the screen and the counters
    std::size_t shown = 0, done = 0, failed = 0;
    std::vector<std::size_t> running;
    std::atomic<std::size_t> next{0};

    auto drawBar = [&] {
        if (!bar_) return;
        const int width = 24;
        int filled = count ? static_cast<int>(done * width / count) : width;
        std::string line = "\r\033[K[" + std::string(static_cast<std::size_t>(filled), '#') +
                           std::string(static_cast<std::size_t>(width - filled), '.') + "] " +
                           std::to_string(done) + "/" + std::to_string(count);
        if (failed) line += ", " + std::to_string(failed) + " failed";
        if (!running.empty()) {
            std::string name = labels[running.front()];
            size_t slash = name.rfind('/');
            if (slash != std::string::npos) name = name.substr(slash + 1);
            if (name.size() > 40) name = name.substr(0, 37) + "...";
            line += "  " + verb_ + " " + qvapp::shown(name);
        }
        std::fputs(line.c_str(), stderr);
        std::fflush(stderr);
    };
    auto clearBar = [&] {
        if (bar_) std::fputs("\r\033[K", stderr);
    };
    // Shows the output of every finished job whose predecessors have shown
    // theirs. Called with the lock held.
    auto showReady = [&] {
        if (!stream) return;
        bool any = false;
        while (shown < count && finished[shown]) {
            if (!any) clearBar();
            any = true;
            JobResult& r = results[shown];
            std::fwrite(r.out.data(), 1, r.out.size(), stdout);
            std::fflush(stdout);
            std::fwrite(r.err.data(), 1, r.err.size(), stderr);
            std::fflush(stderr);
            r.out.clear();
            r.err.clear();
            ++shown;
        }
    };

    auto worker = [&] {
        for (;;) {
            std::size_t i = next.fetch_add(1);
            if (i >= count) return;
            {
                std::lock_guard<std::mutex> lock(mutex);
                running.push_back(i);
                drawBar();
            }
            MemoryStream out, err;
            int status = guardedJob(labels[i], err.file(), [&] {
                             return work(i, out.file(), err.file());
                         }).status();
            std::lock_guard<std::mutex> lock(mutex);
            results[i].status = status;
            results[i].out = out.take();
            results[i].err = err.take();
            finished[i] = true;
            ++done;
            if (status != 0) ++failed;
            std::erase(running, i);
            showReady();
            drawBar();
        }
    };

    int threads = jobs_ < static_cast<int>(count) ? jobs_ : static_cast<int>(count);
    if (threads <= 1) {
        worker();
    } else {
        std::vector<std::thread> pool;
        for (int t = 0; t < threads; ++t)
            pool.emplace_back(worker);
        for (std::thread& t : pool)
            t.join();
    }
    std::lock_guard<std::mutex> lock(mutex);
    clearBar();
    std::fflush(stderr);
    return results;
}

void Turns::wait(std::size_t job) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return next_ >= job; });
}

void Turns::pass(std::size_t job) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (passed_.size() <= job) passed_.resize(job + 1, false);
    passed_[job] = true;
    while (next_ < passed_.size() && passed_[next_])
        ++next_;
    changed_.notify_all();
}

}  // namespace qvapp
