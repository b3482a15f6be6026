// Cancellation tokens: a tiny notifier hands out a token per listener; cancelling the token
// removes the listener. An AutoCancelling holder removes all of an object's listeners when the
// object goes away.

#include <mirels/Foundation.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace {

/// Calls its listeners with each message. Listeners are removed by cancelling their token.
class Notifier : public std::enable_shared_from_this<Notifier> {
  public:
    std::shared_ptr<mirels::CancellationToken> listen(
        mirels::UniqueFunction<void(const std::string&)> listener,
        mirels::Callsite callsite = mirels::Callsite::current()) {
        mirels::Identifier id;
        listeners_.syncWrite([&](auto& map) { map.emplace(id, std::move(listener)); });
        return mirels::CancellationToken::create(
            [weak = weak_from_this(), id] {
                if (auto self = weak.lock()) {
                    self->listeners_.syncWrite([&](auto& map) { map.erase(id); });
                }
            },
            callsite);
    }

    void send(const std::string& message) {
        // Listeners run outside the lock, so a listener may listen or cancel in turn.
        std::vector<mirels::Identifier> ids = listeners_.syncRead([](const auto& map) {
            std::vector<mirels::Identifier> keys;
            for (const auto& entry : map) keys.push_back(entry.first);
            return keys;
        });
        for (auto id : ids) {
            mirels::UniqueFunction<void(const std::string&)> listener =
                listeners_.syncWrite([&](auto& map) {
                    auto it = map.find(id);
                    return it == map.end() ? nullptr : std::move(it->second);
                });
            if (!listener) continue;
            listener(message);
            listeners_.syncWrite([&](auto& map) {
                if (auto it = map.find(id); it != map.end()) it->second = std::move(listener);
            });
        }
    }

    std::size_t count() const {
        return listeners_.syncRead([](const auto& map) { return map.size(); });
    }

  private:
    mirels::ThreadSafe<
        std::map<mirels::Identifier, mirels::UniqueFunction<void(const std::string&)>>>
        listeners_;
};

/// Listens for as long as it lives.
class Panel {
  public:
    explicit Panel(Notifier& notifier, std::string name) : name_(std::move(name)) {
        auto token = notifier.listen(
            [this](const std::string& m) { std::printf("%s got %s\n", name_.c_str(), m.c_str()); });
        store(std::move(token), subscriptions_);
    }

  private:
    std::string name_;
    mirels::AutoCancelling subscriptions_;
};

}  // namespace

int main() {
    auto notifier = std::make_shared<Notifier>();
    auto token =
        notifier->listen([](const std::string& m) { std::printf("logger got %s\n", m.c_str()); });
    {
        Panel panel(*notifier, "panel");
        notifier->send("first");
        std::printf("listeners while the panel lives: %zu\n", notifier->count());
    }
    std::printf("listeners after the panel went away: %zu\n", notifier->count());
    token->cancel();
    notifier->send("nobody hears this");
    std::printf("listeners after cancelling the logger: %zu\n", notifier->count());
    return notifier->count() == 0 ? 0 : 1;
}
