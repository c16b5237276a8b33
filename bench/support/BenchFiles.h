// What the benchmarks share around their documents: a scratch folder that
// goes with what it holds, and the rise of the process's peak memory while a
// document is read.
#pragma once

#include <malloc.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace benchsupport {

// A folder of its own under /tmp, removed with everything in it at the end of
// its life. path() is "" when none could be made.
class ScratchDir {
  public:
    ScratchDir() {
        char dir[] = "/tmp/qvxml-bench-XXXXXX";
        if (mkdtemp(dir)) path_ = dir;
    }
    ~ScratchDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A field of /proc/self/status in kB ("VmRSS:", "VmHWM:"); 0 when missing.
inline long statusKB(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    size_t n = std::string(field).size();
    while (std::getline(in, line))
        if (line.compare(0, n, field) == 0) return std::atol(line.c_str() + n + 1);
    return 0;
}

// Started where the process stands: gives back what earlier runs freed, then
// resets the peak to what is in use now. megabytes() is how far the peak has
// risen above that since.
class PeakRise {
  public:
    PeakRise() {
        malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5";
        before_ = statusKB("VmRSS:");
    }
    double megabytes() const { return static_cast<double>(statusKB("VmHWM:") - before_) / 1024; }

  private:
    long before_ = 0;
};

}  // namespace benchsupport
