// Debouncing: an editor saves a document once the user has paused typing for 300 ms, however
// many edits came before. The saver takes its scheduler as a parameter, so the burst below runs
// on a StepScheduler's virtual time: the program checks exactly when each save happens, instantly
// and without sleeping. The last part runs the same saver on real time.

#include <mirels/Foundation.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace {

using mirels::TimePeriod;

TimePeriod milliseconds(std::int64_t count) {
    return TimePeriod::from(std::chrono::milliseconds(count));
}

/// Keeps a document's text and writes it out once edits pause for a whole delay.
class AutosavingDocument {
  public:
    AutosavingDocument(std::shared_ptr<mirels::Scheduler> scheduler,
                       mirels::UniqueFunction<void(const std::string&)> write)
        : write_(std::move(write)),
          save_(mirels::DelayedInvocation::create(
              milliseconds(300), mirels::DelayedInvocation::Mode::debounce,
              mirels::ExecutionLane::any(), [this] { write_(text_.peek()); },
              std::move(scheduler))) {}

    void edit(const std::string& appended) {
        text_.syncWrite([&](std::string& text) { text += appended; });
        save_->schedule();
    }

    /// Saves now if a save is pending, as when the window closes.
    void close() { save_->fireNow(); }

    bool hasUnsavedEdits() const { return save_->isScheduled(); }

  private:
    mirels::ThreadSafe<std::string> text_;
    mirels::UniqueFunction<void(const std::string&)> write_;
    std::shared_ptr<mirels::DelayedInvocation> save_;
};

struct Save {
    std::uint64_t atMilliseconds;
    std::string text;
};

}  // namespace

int main() {
    auto clock = mirels::StepScheduler::create();
    std::vector<Save> saves;
    AutosavingDocument document(clock, [&](const std::string& text) {
        saves.push_back({clock->now().ticks / 1'000'000, text});
        std::printf("saved \"%s\" at %llu ms\n", text.c_str(),
                    static_cast<unsigned long long>(saves.back().atMilliseconds));
    });

    // A burst: one keystroke every 100 ms for half a second, then a pause.
    for (const char* key : {"h", "e", "l", "l", "o"}) {
        document.edit(key);
        clock->advance(milliseconds(100));
    }
    clock->advance(milliseconds(1000));
    // A second burst, closed before its pause is over.
    document.edit(", world");
    clock->advance(milliseconds(200));
    document.close();
    clock->runUntilIdle();

    bool ok = saves.size() == 2 && saves[0].atMilliseconds == 700 && saves[0].text == "hello" &&
              saves[1].atMilliseconds == 1700 && saves[1].text == "hello, world" &&
              !document.hasUnsavedEdits();

    // The same document on real time (the default background scheduler's clock).
    std::atomic<int> realSaves{0};
    {
        AutosavingDocument live(mirels::DispatchScheduler::background(),
                                [&](const std::string&) { ++realSaves; });
        for (int i = 0; i < 10; ++i) live.edit("x");
        // Only a guard against a hang: a loaded machine may take long to fire the timer.
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (realSaves.load() == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    }
    std::printf("ten quick edits on real time made %d save(s)\n", realSaves.load());
    ok = ok && realSaves.load() == 1;
    std::printf(ok ? "debounce behaved as expected\n" : "unexpected saves\n");
    return ok ? 0 : 1;
}
