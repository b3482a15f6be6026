// Invalidation: a rendering session owns a connection and a preview; the three are bound, so
// whichever ends first ends the others. A build waits for the session to be ready through a
// single-fire event. When the connection drops, the session prints how its invalidation came
// about.

#include <mirels/Foundation.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

/// Something with a lifetime of its own that ends by invalidation.
class Part final : public mirels::Invalidatable {
  public:
    explicit Part(std::string name) : handle_(mirels::InvalidationHandle::create(name)) {
        onInvalidation([name] { std::printf("%s: released its resources\n", name.c_str()); });
    }
    mirels::InvalidationHandle& invalidationHandle() const override { return *handle_; }

  private:
    std::shared_ptr<mirels::InvalidationHandle> handle_;
};

}  // namespace

int main() {
    Part session("session"), connection("connection"), preview("preview");
    mirels::bindInvalidation(session, connection, preview);

    // A registration that must end with the session: its token is managed by the session.
    auto ready = mirels::SingleFireEvent::create();
    mirels::trackInvalidation(
        mirels::CancellationToken::create([] { std::printf("build: stopped waiting\n"); }),
        session);
    auto waiting = ready->observe([] { std::printf("build: session is ready\n"); });
    ready->future().observeSuccess([] { std::printf("build: future of readiness succeeded\n"); });
    ready->fire();
    waiting->cancel();

    session.invalidationHandle().requestInvalidationTrace(
        [](const mirels::InvalidationHandle::InvalidationTrace& trace) {
            std::printf("session was invalidated:\n%s", trace.description().c_str());
        });

    connection.invalidate();  // the peer went away
    std::printf("all invalidated: %s\n",
                session.isInvalidated() && preview.isInvalidated() ? "yes" : "no");
    return 0;
}
