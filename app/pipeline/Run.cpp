// What the commands of a run share: their streams and failures, the files
// they write through the run's safe output, and the names of those files.
#include <unistd.h>

#include <algorithm>

#include "app/commands/Commands.h"
#include "app/conform/LossReport.h"
#include "app/pipeline/Text.h"
#include "host/Paths.h"

namespace qvapp {

Commands::Commands(PluginLoader& plugin, Qv::Ptr<ConsoleLog> console)
    : plugin_(plugin), console_(std::move(console)) {}
Commands::~Commands() = default;
Commands::Commands(Commands&&) noexcept = default;

Outcome Commands::tell(const Outcome& outcome) {
    if (outcome.sentence().empty()) return outcome;
    console_->clearProgress();
    std::fprintf(err_, "qvxml: %s\n", shown(outcome.sentence()).c_str());
    return Outcome::told(outcome.status());
}

void Commands::startRun(const std::vector<std::string>& inputs, bool overwrite) {
    std::lock_guard<std::mutex> lock(run_->mutex);
    for (const std::string& input : inputs)
        run_->inputs.add(input);
    run_->output = std::make_unique<SafeOutput>(run_->inputs, overwrite);
}

Outcome Commands::commitFile(const std::string& finished, const std::string& path,
                             const Options& o) {
    bool older = false;
    Outcome committed;
    {
        std::lock_guard<std::mutex> lock(run_->mutex);
        committed = run_->output->commit(finished, path, &older);
    }
    if (committed.ok() && older) replaced(path, o);
    return committed;
}

Outcome Commands::writeFile(const std::string& path, std::string_view bytes, const Options& o) {
    bool older = false;
    Outcome written;
    {
        std::lock_guard<std::mutex> lock(run_->mutex);
        if (!run_->output) run_->output = std::make_unique<SafeOutput>(run_->inputs, o.overwrite);
        written = run_->output->write(path, bytes, &older);
    }
    if (written.ok() && older) replaced(path, o);
    return written;
}

void Commands::replaced(const std::string& path, const Options& o) {
    if (o.verbosity == Verbosity::Quiet) return;
    console_->clearProgress();
    std::fprintf(err_, "qvxml: replaced the older %s, as --overwrite asks\n",
                 shown(inQuotes(path)).c_str());
}

namespace {

// The bytes of a character of a path.
std::size_t bytesOf(wchar_t c) {
    char32_t v = static_cast<char32_t>(c);
    if (v < 0x80 || (v >= 0xDC80 && v <= 0xDCFF)) return 1;
    return v < 0x800 ? 2 : v < 0x10000 ? 3 : 4;
}

// `stem` cut at a character so that it takes at most `budget` bytes.
std::wstring cutTo(std::wstring_view stem, std::size_t budget) {
    std::size_t used = 0, keep = 0;
    while (keep < stem.size() && used + bytesOf(stem[keep]) <= budget)
        used += bytesOf(stem[keep++]);
    std::wstring out(stem.substr(0, keep));
    // A cut that leaves a blank or a full stop at the end makes a name that
    // is easy to misread.
    while (!out.empty() && (out.back() == L' ' || out.back() == L'.'))
        out.pop_back();
    return out;
}

}  // namespace

std::string Commands::uniqueStem(const LightweightString<wchar_t>& name,
                                 const std::string& extension) {
    std::wstring stem = name.empty() ? std::wstring(L"untitled") : name.str();
    // The longest name the folder's file system takes.
    long longest = ::pathconf(usedDir_.c_str(), _PC_NAME_MAX);
    std::size_t limit = longest > 0 ? static_cast<std::size_t>(longest) : 255;
    std::size_t extensionBytes = narrowPath(wide(extension)).size();
    for (int n = 1;; ++n) {
        std::wstring suffix = n == 1 ? std::wstring() : L" " + std::to_wstring(n);
        std::size_t suffixBytes = suffix.size();
        std::size_t budget =
            limit > extensionBytes + suffixBytes ? limit - extensionBytes - suffixBytes : 1;
        std::wstring candidate = cutTo(stem, budget) + suffix;
        if (candidate.empty()) candidate = L"untitled";
        // The stem as the file will bear it, separators and characters that
        // no file name holds replaced: a stem cut just after a "/" must not
        // leave the extension after a separator, where it is no extension.
        LightweightString<wchar_t> clean = Qv::FilespecUtils::makeValidFilespec(
            {}, LightweightString<wchar_t>(candidate), {}, false, L'_');
        std::string path = narrowPath(joinPath(widePath(usedDir_), clean)) + extension;
        std::lock_guard<std::mutex> lock(run_->mutex);
        std::vector<std::string>& used = run_->paths;
        if (std::find(used.begin(), used.end(), path) == used.end()) {
            used.push_back(path);
            return narrowPath(clean);
        }
    }
}

}  // namespace qvapp
