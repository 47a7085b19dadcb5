#pragma once

#include "service/server/work_lane.h"

#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

namespace keldra {

/// Asks about folders of the shares from a thread that must go on although their file system does not answer.
class FolderQuestions {
public:
    explicit FolderQuestions(WorkLane& lane) : lane_(lane) {}

    /// What `question` returns: what is wrong with some folders, in English. It runs on another thread, maybe long
    /// after this returned, so it may refer to nothing of the caller's. After five seconds: that it takes too long.
    std::string ask(std::function<std::string()> question) {
        constexpr std::chrono::seconds PATIENCE{5};
        const auto answer = std::make_shared<std::promise<std::string>>();
        std::future<std::string> coming = answer->get_future();
        const auto work = [answer, question = std::move(question)] { answer->set_value(question()); };
        if (!lane_.post(work)) return "Folders do not answer at the moment. Try again later.";
        if (coming.wait_for(PATIENCE) == std::future_status::ready) return coming.get();
        return "A folder takes too long to answer: nothing was changed.";
    }

private:
    WorkLane& lane_;
};

}  // namespace keldra
