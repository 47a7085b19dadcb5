#include "service/updates/freshclam.h"

#include "norv/log.h"
#include "norv/path_list.h"
#include "service/base/files.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <thread>

namespace keldra {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::size_t LINE_LIMIT = 4096;

/// A value of the configuration file, quoted when it has blanks; nothing when it could be read as something else.
std::optional<std::string> configurationWord(const std::string& value) {
    const auto unfit = [](unsigned char c) { return c < ' ' || c == 0x7f || c == '"' || c == '\''; };
    if (value.empty() || value.front() == '#' || std::ranges::any_of(value, unfit)) return std::nullopt;
    return value.find(' ') == std::string::npos ? value : '"' + value + '"';
}

/// Adds a line; what does not fit makes the plan a problem.
void addSetting(FreshclamPlan& plan, const char* name, const std::string& value) {
    const auto word = configurationWord(value);
    if (!word) {
        NORV_LOG(NORV_LOG_ERROR, "The update setting %s has a value that cannot be used", name);
        plan.problem = FreshclamPlan::Problem::BAD_SETTING;
        return;
    }
    plan.configuration += std::string(name) + ' ' + *word + '\n';
}

/// A custom source as freshclam wants it; empty when it is neither a path nor a URL of a kind that it fetches.
std::string customUrl(const std::string& entry) {
    if (entry.starts_with('/')) return "file://" + entry;
    for (const char* scheme : {"file:///", "http://", "https://"})
        if (entry.starts_with(scheme)) return entry;
    return {};
}

std::vector<std::string> selectCustom(const std::vector<std::string>& sources, uint8_t components) {
    const bool separate = std::ranges::any_of(sources, [](const std::string& url) { return isSpywareSource(url); });
    std::vector<std::string> selected;
    for (const std::string& source : sources) {
        const bool spyware = isSpywareSource(source);
        const bool byVirus = (components & UPDATE_VIRUS_PATTERN) != 0 && !spyware;
        const bool bySpyware = (components & UPDATE_SPYWARE_PATTERN) != 0 && (spyware || !separate);
        if (byVirus || bySpyware) selected.push_back(source);
    }
    return selected;
}

void planCustom(FreshclamPlan& plan, const NORVAUConfig& settings, uint8_t components) {
    // A server must be named although none is asked.
    addSetting(plan, "PrivateMirror", "http://127.0.0.1:9");
    for (const std::string& source : selectCustom(splitPathList(settings.customURLs), components)) {
        addSetting(plan, "DatabaseCustomURL", customUrl(source));
        ++plan.expected;
    }
    plan.databases = {"custom"};
    if (plan.expected == 0) plan.problem = FreshclamPlan::Problem::NO_SOURCE;
}

void planOfficial(FreshclamPlan& plan, const NORVAUConfig& settings, uint8_t components) {
    if (settings.source == "mirror")
        addSetting(plan, "PrivateMirror", settings.mirror);
    else
        addSetting(plan, "DatabaseMirror", "database.clamav.net");
    // Named one by one: what is merely excluded would be deleted.
    plan.databases = {"main", "daily"};
    if ((components & UPDATE_VIRUS_PATTERN) != 0) plan.databases.emplace_back("bytecode");
    plan.expected = static_cast<int>(plan.databases.size());
    if (settings.source == "mirror" && settings.mirror.empty()) plan.problem = FreshclamPlan::Problem::NO_SOURCE;
}

void planProxy(FreshclamPlan& plan, const NORVAUConfig& settings) {
    if (settings.proxyServer.empty()) return;
    addSetting(plan, "HTTPProxyServer", settings.proxyServer);
    if (!settings.proxyPort.empty()) addSetting(plan, "HTTPProxyPort", settings.proxyPort);
    if (!settings.proxyUser.empty()) addSetting(plan, "HTTPProxyUsername", settings.proxyUser);
    if (!settings.proxyPassword.empty()) addSetting(plan, "HTTPProxyPassword", settings.proxyPassword);
}

/// What the child is made of; prepared before the fork.
struct ChildPlan {
    char* const* arguments;
    char* const* environment;
    int output;
    pid_t parent;
    const Identity* identity;  ///< null: our own
};

bool become(const Identity& identity) {
    return setgroups(identity.groups.size(), identity.groups.data()) == 0 && setgid(identity.group) == 0 &&
           setuid(identity.user) == 0;
}

/// The child's way between fork and exec: only what is safe in the copy of a program with threads.
[[noreturn]] void becomeProgram(const ChildPlan& plan) {
    setpgid(0, 0);
    prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
    // Before the signal is asked for: a change of the user would cancel it.
    if (plan.identity && !become(*plan.identity)) _exit(127);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != plan.parent) _exit(127);
    const int input = open("/dev/null", O_RDONLY);
    if (input < 0 || dup2(input, 0) < 0 || dup2(plan.output, 1) < 0 || dup2(plan.output, 2) < 0) _exit(127);
    close_range(3, ~0U, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (const int number : {SIGPIPE, SIGXFSZ, SIGHUP, SIGINT, SIGTERM, SIGCHLD}) signal(number, SIG_DFL);
    umask(027);
    execve(plan.arguments[0], plan.arguments, plan.environment);
    _exit(127);
}

std::vector<std::string> childEnvironment() {
    std::vector<std::string> environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
    for (const char* name : {"CURL_CA_BUNDLE", "TZ"})
        if (const char* value = getenv(name)) environment.push_back(std::string(name) + '=' + value);
    return environment;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// A started program: its output, cut into lines, and its end.
class Child {
public:
    explicit Child(const ChildRun& run) : run_(run) {}
    ~Child() { end(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    bool start();
    /// Waits a moment for output. False once the program has ended and all that it printed is read.
    bool step();
    /// Ends the whole process group and waits for the program.
    void end();
    int status() const { return status_; }

private:
    bool readSome();
    void reap(int flags);

    const ChildRun& run_;
    FileDescriptor output_;
    pid_t pid_ = -1;
    bool ended_ = false;
    int status_ = -1;
    std::string rest_;
};

bool Child::start() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) return false;
    output_ = FileDescriptor(ends[0]);
    const FileDescriptor input(ends[1]);
    fcntl(output_.get(), F_SETFL, O_NONBLOCK);
    std::vector<std::string> arguments = run_.arguments;
    std::vector<std::string> environment = childEnvironment();
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> environmentPointers = pointersTo(environment);
    const ChildPlan plan{argumentPointers.data(), environmentPointers.data(), input.get(), getpid(),
                         run_.identity ? &*run_.identity : nullptr};
    pid_ = fork();
    if (pid_ == 0) becomeProgram(plan);
    if (pid_ > 0) setpgid(pid_, pid_);
    return pid_ > 0;
}

bool Child::step() {
    pollfd file{output_.get(), POLLIN, 0};
    if (output_)
        poll(&file, 1, 200);
    else
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    reap(WNOHANG);
    while (output_ && readSome()) continue;
    return !ended_;
}

/// True when something was read; the output is closed at its end.
bool Child::readSome() {
    std::array<char, 4096> block{};
    const ssize_t count = ::read(output_.get(), block.data(), block.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    if (count <= 0) {
        output_.reset();
        return false;
    }
    rest_.append(block.data(), static_cast<size_t>(count));
    size_t from = 0;
    for (size_t end = 0; (end = rest_.find_first_of("\r\n", from)) != std::string::npos; from = end + 1)
        if (end > from) run_.line(std::string_view(rest_).substr(from, end - from));
    rest_.erase(0, from);
    if (rest_.size() > LINE_LIMIT) rest_.clear();
    return true;
}

void Child::reap(int flags) {
    int status = 0;
    if (ended_ || pid_ <= 0 || waitpid(pid_, &status, flags) != pid_) return;
    ended_ = true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void Child::end() {
    if (pid_ <= 0) return;
    if (!ended_) {
        kill(-pid_, SIGTERM);
        for (int i = 0; i < 10 && !ended_; ++i) step();
    }
    kill(-pid_, SIGKILL);
    reap(0);
    pid_ = -1;
}

/// Case-insensitive search of an ASCII word.
bool containsWord(std::string_view text, std::string_view word) {
    const auto same = [](char a, char b) { return std::tolower(static_cast<unsigned char>(a)) == b; };
    return std::search(text.begin(), text.end(), word.begin(), word.end(), same) != text.end();
}

/// The number in front of "%]", as in "Downloading x [ 40%]".
int percentIn(std::string_view text) {
    const size_t end = text.rfind("%]");
    const size_t open = end == std::string_view::npos ? end : text.rfind('[', end);
    if (open == std::string_view::npos) return -1;
    std::string_view digits = text.substr(open + 1, end - open - 1);
    digits.remove_prefix(std::min(digits.find_first_not_of(' '), digits.size()));
    int percent = -1;
    std::from_chars(digits.data(), digits.data() + digits.size(), percent);
    return percent;
}

}  // namespace

std::optional<Identity> identityOf(const std::string& user) {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return std::nullopt;
    int count = 64;
    Identity identity{entry.pw_uid, entry.pw_gid, std::vector<gid_t>(static_cast<size_t>(count))};
    if (getgrouplist(user.c_str(), identity.group, identity.groups.data(), &count) < 0) return std::nullopt;
    identity.groups.resize(static_cast<size_t>(count));
    return identity;
}

bool isSpywareSource(std::string_view nameOrUrl) {
    const std::string_view name = nameOrUrl.substr(nameOrUrl.rfind('/') + 1);
    return std::ranges::any_of(std::array<std::string_view, 3>{"spyware", "adware", "pua"},
                               [&](std::string_view word) { return containsWord(name, word); });
}

FreshclamPlan planFreshclam(const NORVAUConfig& settings, uint8_t components, const FreshclamPlaces& places) {
    FreshclamPlan plan;
    addSetting(plan, "DatabaseDirectory", places.signatures);
    addSetting(plan, "DatabaseOwner", places.owner);
    addSetting(plan, "UpdateLogFile", places.log);
    plan.configuration += "LogFileMaxSize 2M\nLogRotate yes\nLogTime yes\nTestDatabases yes\nMaxAttempts 3\n";
    if (settings.source == "custom")
        planCustom(plan, settings, components);
    else
        planOfficial(plan, settings, components);
    planProxy(plan, settings);
    return plan;
}

void FreshclamProgress::line(std::string_view text) {
    if (containsWord(text, " updated (") || containsWord(text, " is up-to-date") ||
        containsWord(text, " is up to date")) {
        done_ = std::min(done_ + 1, expected_);
        percent_ = 0;
    } else if (const int percent = percentIn(text); percent >= 0) {
        percent_ = std::min(percent, 100);
    }
}

int FreshclamProgress::tenths() const {
    const int whole = done_ >= expected_ ? 0 : percent_;
    return 1 + 8 * (done_ * 100 + whole) / (expected_ * 100);
}

ChildResult runChild(const ChildRun& run) {
    ChildResult result;
    Child child(run);
    if (!child.start()) {
        NORV_LOG(NORV_LOG_ERROR, "Cannot start %s: %s", run.arguments[0].c_str(), errorText(errno).c_str());
        return result;
    }
    const SteadyTime deadline = std::chrono::steady_clock::now() + std::chrono::seconds(run.timeLimit);
    SteadyTime lastPulse = std::chrono::steady_clock::now();
    while (child.step()) {
        const SteadyTime now = std::chrono::steady_clock::now();
        result.stopped = run.stopped();
        result.timedOut = now > deadline;
        if (result.stopped || result.timedOut) break;
        if (now - lastPulse < std::chrono::seconds(1)) continue;
        lastPulse = now;
        run.pulse();
    }
    child.end();
    result.status = child.status();
    return result;
}

}  // namespace keldra
