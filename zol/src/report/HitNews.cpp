#include "HitNews.h"

#include <mutex>
#include <utility>

namespace zol {
namespace {

struct News {
    std::mutex
        mutex;  // of what follows; held while the listener runs, so that none runs once it is withdrawn
    TSPolicyHit last;
    HitNews::Listener listener;
};

/// Never destroyed: tasks may report until the process ends.
News& The() {
    static auto* const news = new News;
    return *news;
}

}  // namespace

void HitNews::Tell(TSPolicyHit hit) {
    News& news = The();
    const std::lock_guard<std::mutex> lock(news.mutex);
    news.last = std::move(hit);
    if (news.listener) {
        news.listener(news.last);
    }
}

TSPolicyHit HitNews::Last() {
    News& news = The();
    const std::lock_guard<std::mutex> lock(news.mutex);
    return news.last;
}

base::Subscription HitNews::Listen(Listener listener) {
    News& news = The();
    const std::lock_guard<std::mutex> lock(news.mutex);
    news.listener = std::move(listener);
    return base::Subscription([] {
        News& withdrawn = The();
        const std::lock_guard<std::mutex> held(withdrawn.mutex);
        withdrawn.listener = nullptr;
    });
}

}  // namespace zol
