#include "service/updates/updater.h"

#include "norv/log.h"
#include "service/base/files.h"
#include "service/updates/fetch_folder.h"
#include "service/updates/freshclam_plan.h"
#include "service/updates/freshclam_progress.h"
#include "service/updates/update_messages.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <exception>
#include <filesystem>
#include <utility>

namespace keldra {

namespace {

constexpr uint8_t PATTERNS = UPDATE_VIRUS_PATTERN | UPDATE_SPYWARE_PATTERN;

/// What fails in here, also for want of memory, neither ends the service nor keeps the next update from starting.
template <typename Body>
void guarded(const Body& body) noexcept {
    try {
        body();
    } catch (const std::exception& error) {
        try {
            NORV_LOG(NORV_LOG_ERROR, "The update failed: %s", error.what());
        } catch (const std::exception&) {
            return;  // not even that can be said
        }
    }
}

std::string ownUserName() {
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return "root";
    return found->pw_name;
}

}  // namespace

const std::vector<std::string>& updateMessages() {
    static const std::vector<std::string> MESSAGES = {
        INSTALLED,   UP_TO_DATE, ENGINE_ONLY, NOTHING_SELECTED, NO_SOURCE,    BAD_SETTINGS,
        UNREACHABLE, UNREADABLE, REFUSED,     DAMAGED,          NOT_LOADED,   NOT_STORED,
        NOT_FOUND,   TOO_LONG,   INTERRUPTED, FAILED,           NOT_READABLE, CONFINED};
    return MESSAGES;
}

Updater::Updater(UpdaterSettings settings, UpdaterHooks hooks, const Clock& clock)
    : settings_(std::move(settings)),
      hooks_(std::move(hooks)),
      clock_(clock),
      progress_(hooks_.varPath),
      components_(settings_.state / "components.json", settings_.signatures, clock) {}

Updater::~Updater() { stop(); }

bool Updater::startManual(const std::string& requestId, uint8_t components) {
    if (!isUpdateId(requestId)) return false;
    return begin({requestId, components});
}

bool Updater::startScheduled(uint8_t components) { return begin({{}, components}); }

bool Updater::begin(Request request) {
    const std::lock_guard lock(mutex_);
    if (stopping_) return false;
    if (status_.running) return !request.id.empty() && status_.requestId == request.id;
    if (thread_.joinable()) thread_.join();  // it has finished its work
    status_ = {};
    status_.scheduled = request.id.empty();
    status_.requestId = request.id;
    status_.started = clock_.now();
    if (!request.id.empty()) progress_.write(request.id, "0");
    thread_ = std::thread([this, request = std::move(request)] { execute(request); });
    // Not before the thread exists, or a start that fails would stand in the way of all others; it waits for the lock.
    status_.running = true;
    return true;
}

void Updater::stop() {
    std::thread ending;
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        ending.swap(thread_);
    }
    if (ending.joinable()) ending.join();
}

UpdateStatus Updater::status() const {
    const std::lock_guard lock(mutex_);
    return status_;
}

ComponentVersions Updater::versions() const { return components_.versions(); }

/// Looks into the folder. False when it cannot be read. Whatever goes wrong in here or afterwards, what was not taken
/// into use stays due.
bool Updater::lookAtFiles() {
    const bool due = reloadDue_.exchange(true);
    const FolderLook look = components_.noteFiles();
    if (look == FolderLook::SAME && !due) reloadDue_ = false;
    return look != FolderLook::FAILED;
}

void Updater::noteComponents(bool whole) {
    // A load that ended while an update was under way may have read the files before these changed.
    const FolderLook look = components_.noteFiles();
    if (look == FolderLook::FAILED || (look == FolderLook::CHANGED && status().running) || !whole) reloadDue_ = true;
    if (hooks_.engineVersion) components_.noteEngine(hooks_.engineVersion());
}

void Updater::recover() {
    progress_.close(INTERRUPTED);
    removeLeftovers();
}

void Updater::cleanUp() {
    const UpdateStatus now = status();
    progress_.cleanUp(clock_.now() - settings_.progressAge, settings_.progressFiles, now.running ? now.requestId : "");
}

void Updater::execute(const Request& request) noexcept {
    Outcome outcome{false, false, FAILED};
    guarded([&] {
        NORV_LOG(NORV_LOG_INFO, "Update begins (%s)", request.id.empty() ? "scheduled" : "manual");
        cleanUp();
        outcome = update(request);
    });
    guarded([&] { NORV_LOG(outcome.succeeded ? NORV_LOG_INFO : NORV_LOG_ERROR, "Update ends: %s", outcome.message); });
    // The console shows its page for a finished update at 10, and any other text as it stands.
    const bool finished = outcome.succeeded && outcome.installed;
    guarded([&] {
        if (!request.id.empty()) progress_.write(request.id, finished ? "10" : outcome.message);
    });
    std::string message;
    guarded([&] { message = outcome.message; });
    UpdateStatus ended;
    {
        const std::lock_guard lock(mutex_);
        status_.running = false;
        status_.progress = 10;
        status_.ended = clock_.now();
        status_.succeeded = outcome.succeeded;
        status_.installed = outcome.installed;
        status_.message = std::move(message);
        guarded([&] { ended = status_; });
    }
    // Without the lock, under which whoever starts the next one waits for this thread.
    guarded([&] {
        if (hooks_.ended) hooks_.ended(ended);
    });
}

Updater::Outcome Updater::update(const Request& request) {
    if ((request.components & (PATTERNS | UPDATE_SCAN_ENGINE)) == 0) return {false, false, NOTHING_SELECTED};
    if (hooks_.engineVersion) components_.noteEngine(hooks_.engineVersion());
    if ((request.components & PATTERNS) == 0) return {true, false, ENGINE_ONLY};
    if (!makeFolder(settings_.signatures, 0755)) return {false, false, NOT_STORED};
    if (!lookAtFiles()) return {false, false, NOT_READABLE};
    const std::string owner = settings_.databaseOwner.empty() ? ownUserName() : settings_.databaseOwner;
    FetchFolder folder(settings_.signatures);
    const FreshclamPlan plan =
        planFreshclam(hooks_.configuration(), request.components,
                      {.signatures = folder.path(), .log = settings_.state / "freshclam.log", .owner = owner});
    if (plan.problem == FreshclamPlan::Problem::NO_SOURCE) return {false, false, NO_SOURCE};
    if (plan.problem == FreshclamPlan::Problem::BAD_SETTING) return {false, false, BAD_SETTINGS};
    return fetch(request, plan, folder);
}

Updater::Outcome Updater::fetch(const Request& request, const FreshclamPlan& plan, FetchFolder& folder) {
    const std::filesystem::path configuration = settings_.state / "freshclam.conf";
    // 0600: it may hold the proxy's password.
    if (!writeFileAtomically(configuration, plan.configuration, 0600)) return {false, false, NOT_STORED};
    ChildRun run;
    if (geteuid() == 0 && !settings_.databaseOwner.empty()) {
        run.identity = identityOf(settings_.databaseOwner);
        if (!run.identity || !handOver(configuration, *run.identity)) {
            NORV_LOG(NORV_LOG_ERROR, "The databases cannot be given to %s", settings_.databaseOwner.c_str());
            return {false, false, NOT_STORED};
        }
    }
    if (!folder.make(run.identity ? &*run.identity : nullptr)) return notStored(folder.path());
    run.arguments = {settings_.freshclam, "--config-file=" + configuration.string(), "--stdout", "--show-progress"};
    for (const std::string& database : plan.databases) run.arguments.push_back("--update-db=" + database);
    run.timeLimit = settings_.timeLimit;
    FreshclamProgress progress(plan.expected);
    FailureWatch failure;
    run.line = [&](std::string_view line) {
        if (line.starts_with("ERROR") || line.starts_with("WARNING"))
            NORV_LOG(NORV_LOG_WARNING, "freshclam: %.*s", static_cast<int>(line.size()), line.data());
        progress.line(line);
        failure.line(line);
        if (progress.tenths() != status().progress) showProgress(request, progress.tenths());
    };
    // Written again and again: a refused repeat of the request makes the console write "DUPLICATE" over it.
    run.pulse = [&] { showProgress(request, progress.tenths()); };
    run.stopped = [this] { return stopping_.load(); };
    const ChildResult result = runChild(run);
    std::error_code ignored;
    std::filesystem::remove(configuration, ignored);
    if (!folder.adopt()) return notStored(settings_.signatures);
    return afterFetch(result, failure);
}

Updater::Outcome Updater::notStored(const std::filesystem::path& folder) {
    NORV_LOG(NORV_LOG_ERROR, "%s cannot be written: %s", folder.c_str(), errorText(errno).c_str());
    return {false, false, NOT_STORED};
}

/// Gives the user whom freshclam becomes what it works on.
bool Updater::handOver(const std::filesystem::path& configuration, const Identity& owner) const {
    const auto log = settings_.state / "freshclam.log";
    const FileDescriptor made(::open(log.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0640));
    return std::ranges::all_of(std::array{configuration, log, settings_.signatures},
                               [&](const auto& path) { return ::lchown(path.c_str(), owner.user, owner.group) == 0; });
}

/// A source that failed half-way may have brought something all the same, which is taken into use.
Updater::Outcome Updater::afterFetch(const ChildResult& result, const FailureWatch& failure) {
    const bool readable = lookAtFiles();
    if (result.stopped) return {false, false, INTERRUPTED};
    if (!readable) return {false, false, NOT_READABLE};
    const bool changed = reloadDue_;
    if (changed && hooks_.reload && !hooks_.reload()) return {false, false, NOT_LOADED};
    reloadDue_ = false;
    if (result.timedOut) return {false, changed, TOO_LONG};
    // 1 is "up to date" of older versions; newer ones say 0 for both.
    if (result.status != 0 && result.status != 1) return {false, changed, failure.messageOf(result)};
    return {true, changed, changed ? INSTALLED : UP_TO_DATE};
}

void Updater::showProgress(const Request& request, int tenths) {
    {
        const std::lock_guard lock(mutex_);
        status_.progress = tenths;
    }
    if (!request.id.empty()) progress_.write(request.id, std::to_string(tenths));
}

/// Folders of an update that was cut off.
void Updater::removeLeftovers() const {
    for (const std::string& name : namesIn(settings_.signatures).value_or(std::vector<std::string>())) {
        const auto path = settings_.signatures / name;
        std::error_code error;
        const bool folder = std::filesystem::is_directory(std::filesystem::symlink_status(path, error));
        if (folder && (name.starts_with("tmp.") || name == FetchFolder::NAME)) removeTree(path);
    }
}

}  // namespace keldra
