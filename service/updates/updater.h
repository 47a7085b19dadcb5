#pragma once

#include "norv/au_config.h"
#include "norv/protocol/updates.h"
#include "service/base/child_process.h"
#include "service/base/clock.h"
#include "service/updates/components.h"
#include "service/updates/progress_files.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace keldra {

/// Where an Updater works and how long it may take.
struct UpdaterSettings {
    std::filesystem::path state;       ///< components.json, freshclam.conf and freshclam.log are kept here
    std::filesystem::path signatures;  ///< the database folder that is kept up to date; made when missing
    std::string freshclam = "/usr/bin/freshclam";
    std::string databaseOwner;         ///< the user whom freshclam runs as when we are root; empty: our own
    unsigned timeLimit = 3600;         ///< seconds for one run; then it is ended
    std::size_t progressFiles = 200;   ///< progress files kept at most
    std::int64_t progressAge = 86400;  ///< seconds for which they are kept
};

/// What an update is doing, or what became of the last one.
using UpdateStatus = protocol::UpdateProgress;

/// What an Updater needs of the rest of the service. All may be called from its own thread.
struct UpdaterHooks {
    std::function<NORVAUConfig()> configuration;  ///< the settings of the moment: sources and proxy
    std::function<std::string()> varPath;         ///< the folder of the progress files
    std::function<std::string()> engineVersion;   ///< version of the scan engine that is in use
    /// Loads the new databases and waits for it. False: not all of them are in use.
    std::function<bool()> reload;
    /// Told how an update ended. May be empty.
    std::function<void(const UpdateStatus& update)> ended{};
};

class FailureWatch;
class FetchFolder;
struct FreshclamPlan;

/// All texts that an update may end with, for the message catalogue.
const std::vector<std::string>& updateMessages();

/// Keeps the signature databases up to date by running freshclam as a child process, one at a time. The progress of a
/// manual update stands in `<var>/progress_<id>.txt`: tenths, and at the end "10" when something new was installed or
/// one of `updateMessages`. May be used from several threads.
class Updater {
public:
    Updater(UpdaterSettings settings, UpdaterHooks hooks, const Clock& clock);
    /// Ends what is running and waits for it.
    ~Updater();
    Updater(const Updater&) = delete;
    Updater& operator=(const Updater&) = delete;

    /// Starts an update of these components (bits UPDATE_…). True when it was started, also when this id is running
    /// already; false when another update runs, the id is not a legal one or the service is ending.
    bool startManual(const std::string& requestId, uint8_t components);
    /// The same for the schedule; false when an update runs.
    bool startScheduled(uint8_t components);
    /// Ends a running update and waits for it; nothing can be started afterwards.
    void stop();

    UpdateStatus status() const;
    /// Cheap enough to be asked for with every served document.
    ComponentVersions versions() const;
    /// Takes note of what lies in the database folder and which engine is in use; call it once the engine is loaded.
    /// `whole`: all could be loaded; else the next update tries again, whether it brings anything or not.
    void noteComponents(bool whole = true);
    /// Closes progress files that a crash left unfinished. Call it once, before the first update.
    void recover();
    /// Removes progress files that are old or too many. Also done at each update.
    void cleanUp();

private:
    struct Request {
        std::string id;  ///< empty: the schedule's
        uint8_t components = 0;
    };
    struct Outcome {
        bool succeeded = false;
        bool installed = false;
        const char* message = "";
    };

    bool begin(Request request);
    bool lookAtFiles();
    void execute(const Request& request) noexcept;
    Outcome update(const Request& request);
    Outcome fetch(const Request& request, const FreshclamPlan& plan, FetchFolder& folder);
    static Outcome notStored(const std::filesystem::path& folder);
    bool handOver(const std::filesystem::path& configuration, const Identity& owner) const;
    Outcome afterFetch(const ChildResult& result, const FailureWatch& failure);
    void showProgress(const Request& request, int tenths);
    void removeLeftovers() const;

    const UpdaterSettings settings_;
    const UpdaterHooks hooks_;
    const Clock& clock_;
    const ProgressFiles progress_;
    Components components_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> reloadDue_{false};  ///< the files changed since a load went well
    mutable std::mutex mutex_;
    UpdateStatus status_;
    std::thread thread_;
};

}  // namespace keldra
