#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace keldra {

/// What a verdict needs to know of disks, which may be slow or not answer at all.
struct SlowFacts {
    std::size_t roots = 0;
    std::vector<std::string> missingRoots;
    std::vector<std::string> emptyRoots;
    std::string hangingPath;               ///< what is being looked at for too long; the rest is then of before
    std::uint64_t stateFree = UINT64_MAX;  ///< bytes
    std::uint64_t stateSize = UINT64_MAX;  ///< bytes
    std::uint64_t untreated = 0;           ///< infected files that lie where they were found
    std::string untreatedExample;
    std::string untreatedScan;  ///< the newest scan that reported one
};

/// An infected file that a scan left where it was.
struct LeftFind {
    std::string path;
    std::string scan;
};

/// What to look at.
struct SlowQuestions {
    std::vector<std::string> roots;
    std::string stateFolder;
    std::vector<LeftFind> left;  ///< those of the newest scan first
};

/// Looks at the disks now and then on a thread of its own, so that no question waits for them. A disk that never
/// answers keeps only that thread.
class SlowFactsWatch {
public:
    /// `ask` is called from that thread before each look, and never again once `stop` has returned.
    explicit SlowFactsWatch(std::function<SlowQuestions()> ask, int intervalMilliseconds = 20000,
                            int patienceMilliseconds = 120000);
    ~SlowFactsWatch() { stop(); }
    SlowFactsWatch(const SlowFactsWatch&) = delete;
    SlowFactsWatch& operator=(const SlowFactsWatch&) = delete;

    /// What the last look told. The first call waits for the first look, a second at most.
    SlowFacts facts() const;
    /// Looks anew soon.
    void lookAgain();
    void stop();

private:
    struct State;

    std::shared_ptr<State> state_;
};

/// One look. `at` is told each path before it is touched.
SlowFacts lookAtDisks(const SlowQuestions& questions, const std::function<void(const std::string& path)>& at);

}  // namespace keldra
