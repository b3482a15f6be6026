// Queries: an editor process answers "which previews does this file have?" and "how many
// diagnostics does it have?" through resolvers that know nothing of each other. A project-wide
// manager is the delegate of a per-window manager, so the window sees the project's answers first.
// Several threads ask the slow diagnostics query at once and share one computation, and swapping
// a resolver is announced to observers of the window.

#include <mirels/Foundation.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

/// The preview names of one file, from every resolver, in order.
struct PreviewsQuery {
    using Primitive = std::vector<std::string>;
    using MergeStrategy = mirels::ConcatenationMerge<std::string>;
    std::string file;
};

/// The number of diagnostics of one file: each resolver's count arrives later, and the counts
/// are summed. Hashable, so equal questions asked at once share one pending answer.
struct DiagnosticsQuery {
    using Primitive = mirels::Future<int>;
    using MergeStrategy = mirels::FutureMerge<mirels::SumMerge<int>>;
    std::string file;
    friend bool operator==(const DiagnosticsQuery&, const DiagnosticsQuery&) = default;
};

}  // namespace

template <>
struct std::hash<DiagnosticsQuery> {
    std::size_t operator()(const DiagnosticsQuery& query) const noexcept {
        return std::hash<std::string>{}(query.file);
    }
};

namespace {

/// A resolver with a fixed table.
class StaticResolver final : public mirels::QueryResolver {
  public:
    explicit StaticResolver(mirels::QueryResolutions table) : table_(std::move(table)) {}
    mirels::QueryResolutions resolutions() const override { return table_; }

  private:
    mirels::QueryResolutions table_;
};

/// A linter whose answers change when its rules are reloaded.
class Linter final : public mirels::QueryResolver {
  public:
    mirels::QueryResolutions resolutions() const override {
        int strictness = strictness_.load();
        return mirels::resolve<DiagnosticsQuery>([this, strictness](const DiagnosticsQuery& query) {
            runs.fetch_add(1);
            // The count is computed on a worker thread, as a real linter would.
            auto [future, promise] = mirels::Future<int>::create();
            std::thread([promise = promise, length = static_cast<int>(query.file.size()),
                         strictness] {
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
                promise.succeed(length * strictness);
            }).detach();
            return std::optional(future);
        });
    }

    std::optional<mirels::EventStream<void>> queryResolverPublisher() const override {
        return reloads_->eventStream();
    }

    void reload(int strictness) {
        strictness_ = strictness;
        reloads_->send();
    }

    mutable std::atomic<int> runs{0};

  private:
    std::atomic<int> strictness_{1};
    std::shared_ptr<mirels::EventStream<void>::Sink> reloads_ =
        mirels::EventStream<void>::Sink::create();
};

}  // namespace

int main() {
    using mirels::QueryManager;
    using mirels::QueryResolutions;

    // The project knows previews of view files and one diagnostic per file.
    auto project = QueryManager::create(
        nullptr,
        {std::make_shared<StaticResolver>(QueryResolutions{
            mirels::resolve<PreviewsQuery>(
                [](const PreviewsQuery& query) -> std::optional<std::vector<std::string>> {
                    if (query.file.ends_with("View.src")) return std::vector<std::string>{"Light"};
                    return std::nullopt;  // no answer for other files
                }),
            mirels::resolveWith<DiagnosticsQuery>([] { return mirels::Future<int>::succeeded(1); }),
        })});

    // The window adds its own previews and a linter.
    auto linter = std::make_shared<Linter>();
    auto window = QueryManager::create(
        project, {std::make_shared<StaticResolver>(
                      mirels::resolve<PreviewsQuery>([](const PreviewsQuery& query, QueryManager&) {
                          return std::optional(std::vector<std::string>{"Dark " + query.file});
                      })),
                  linter});

    for (const char* file : {"CardView.src", "Model.src"}) {
        std::vector<std::string> previews = mirels::uncachedValue(PreviewsQuery{file}, *window);
        std::printf("%s previews:", file);
        for (const std::string& preview : previews) std::printf(" [%s]", preview.c_str());
        std::printf("\n");
    }

    // Eight threads ask for the diagnostics of one file at once: one computation, one answer.
    std::vector<std::thread> askers;
    std::vector<int> answers(8);
    for (std::size_t i = 0; i < answers.size(); ++i) {
        askers.emplace_back([&, i] {
            mirels::Future<int> count = mirels::value(DiagnosticsQuery{"CardView.src"}, *window);
            answers[i] = count.unpleasantWait().succeededValue().value_or(-1);
        });
    }
    for (auto& asker : askers) asker.join();
    std::printf("diagnostics of CardView.src: %d (asked by %zu threads, linter ran %d time)\n",
                answers[0], answers.size(), linter->runs.load());

    // Reloading the linter is announced through the window; the next question is answered anew.
    std::mutex mutex;
    std::condition_variable announced;
    bool changed = false;
    auto token = window->objectWillChange().observe([&] {
        std::lock_guard guard(mutex);
        changed = true;
        announced.notify_all();
    });
    linter->reload(3);
    {
        // The announcement comes at once; the bound only keeps a lost one from hanging the
        // example, so it is generous enough for a heavily loaded machine.
        std::unique_lock guard(mutex);
        announced.wait_for(guard, std::chrono::seconds(60), [&] { return changed; });
    }
    token->cancel();
    int after = window->cachedValue(DiagnosticsQuery{"CardView.src"})
                    .unpleasantWait()
                    .succeededValue()
                    .value_or(-1);
    std::printf("window announced a change: %s; diagnostics now: %d\n", changed ? "yes" : "no",
                after);
    return 0;
}
