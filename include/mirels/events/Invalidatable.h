#pragma once

#include "mirels/Export.h"

// Invalidation: the one-way signal that an object is finished and is to be let go.
//
// An object that can be invalidated owns an `InvalidationHandle`. Invalidating the handle fires
// it once, runs its observers and spreads along the bindings other objects made to it. Every
// invalidation records a link (which handle, where it was made, where it was invalidated and
// which invalidation in progress caused it), so that a cascade can be read back as a trace.

#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <vector>

#include "mirels/core/Callsite.h"
#include "mirels/core/CancellationToken.h"
#include "mirels/core/ThreadSafe.h"
#include "mirels/core/UniqueFunction.h"
#include "mirels/events/SingleFireEvent.h"

namespace mirels {

class InvalidationHandle;

/// Something that can be invalidated.
class MinimallyInvalidatable {
  public:
    virtual ~MinimallyInvalidatable() = default;

    /// Invalidates the object; invalidating it again does nothing.
    virtual void invalidate(Callsite callsite = Callsite::current()) = 0;

  protected:
    MinimallyInvalidatable() = default;
    MinimallyInvalidatable(const MinimallyInvalidatable&) = default;
    MinimallyInvalidatable& operator=(const MinimallyInvalidatable&) = default;
};

/// Something invalidated through an `InvalidationHandle` it owns. A conformer provides only
/// `invalidationHandle()`; everything else works on that handle.
///
/// `invalidate` is final: invalidating the object and invalidating its handle must be the same
/// thing, because bindings and tracking invalidate handles directly. Work that must happen on
/// invalidation belongs in an observer of the object's own handle (`onInvalidation`).
class MIRELS_EXPORT Invalidatable : public MinimallyInvalidatable {
  public:
    /// The handle that carries this object's invalidation.
    virtual InvalidationHandle& invalidationHandle() const = 0;

    /// Invalidates the handle from `callsite`: its observers run on this thread and the
    /// invalidation spreads to every object that tracks it. Invalidating twice does nothing.
    void invalidate(Callsite callsite = Callsite::current()) final;

    /// Whether the object has been invalidated.
    bool isInvalidated() const noexcept;

    /// Calls `observer` when the object is invalidated, and returns the token that unregisters
    /// it. When the object has been invalidated already, calls `observer` at once and returns
    /// null.
    [[nodiscard]] std::shared_ptr<CancellationToken> observeInvalidation(
        UniqueFunction<void()> observer) const;

    /// As `observeInvalidation`, keeping the registration until the invalidation.
    void onInvalidation(UniqueFunction<void()> observer) const;

    /// Invalidates this object, from `callsite`, when `other` is invalidated (at once, when it
    /// has been already). `other` holds this object's handle until then.
    void trackInvalidation(const Invalidatable& other,
                           Callsite callsite = Callsite::current()) const;

  protected:
    Invalidatable() = default;
    Invalidatable(const Invalidatable&) = default;
    Invalidatable& operator=(const Invalidatable&) = default;
};

/// The object that carries an invalidation: a single-fire event plus the record of how it was
/// invalidated. It is itself `Invalidatable`, its handle being itself. A reference type, made
/// with `create`.
///
/// Invalidating a handle H from call site C:
/// 1. H's event moves to fired under its lock, and its observers are taken out; a second
///    invalidation stops here, running nothing and recording nothing.
/// 2. Under the process-wide tracer's recursive lock: the handle whose invalidation is in
///    progress (innermost) becomes H's cause, H is pushed on the tracer's stack, H's observers
///    run in registration order and its future succeeds, then H is popped. Observers that
///    track other objects invalidate them here, nested, with H as their cause.
/// 3. H's link (name, where made, C, cause) is stored, and pending trace requests answered.
/// 4. The tokens H was keeping are canceled.
///
/// The tracer's lock is the one lock of the library held while callers' code runs: a cascade
/// must see only its own invalidations on the stack, so cascades on different threads take
/// turns. An observer must therefore not wait for another thread that invalidates.
class MIRELS_EXPORT InvalidationHandle final
    : public Invalidatable,
      public std::enable_shared_from_this<InvalidationHandle> {
    struct Key {
        explicit Key() = default;
    };

  public:
    /// The causal chain of one invalidation: the handle's own link first, then the link of the
    /// invalidation that caused it, and so on back to the one invalidated directly.
    class InvalidationTrace {
      public:
        /// One invalidation of a cascade.
        struct Link {
            /// The handle's name.
            std::optional<std::string> name;
            /// Where the handle was made.
            Callsite initializationCallsite;
            /// Where it was invalidated.
            Callsite invalidationCallsite;
            /// The handle whose invalidation was in progress when this one happened, held
            /// strongly so that a trace stays complete; null when invalidated directly.
            std::shared_ptr<InvalidationHandle> previous;

            friend bool operator==(const Link&, const Link&) = default;
        };

        std::vector<Link> links;

        /// One entry per link, from the last (the direct invalidation) to the first, numbered
        /// from 0: "<n>: [<name>] Initialized: <call site>\n   Invalidated: <call site>\n",
        /// without the bracketed part when the link has no name. Empty without links.
        std::string description() const;

        friend bool operator==(const InvalidationTrace&, const InvalidationTrace&) = default;
    };
    using Link = InvalidationTrace::Link;
    using TraceCallback = UniqueFunction<void(const InvalidationTrace&)>;

    /// A valid handle named `name` (a label for traces), made at `callsite`.
    [[nodiscard]] static std::shared_ptr<InvalidationHandle> create(
        std::optional<std::string> name = std::nullopt, Callsite callsite = Callsite::current());

    InvalidationHandle(Key, std::optional<std::string> name, Callsite callsite);
    InvalidationHandle(const InvalidationHandle&) = delete;
    InvalidationHandle& operator=(const InvalidationHandle&) = delete;

    /// Itself.
    InvalidationHandle& invalidationHandle() const override {
        return const_cast<InvalidationHandle&>(*this);
    }

    const std::optional<std::string>& name() const noexcept { return name_; }
    Callsite initializationCallsite() const noexcept { return initializationCallsite_; }

    /// Calls `callback` with the trace once the handle has been invalidated and the trace is
    /// complete: at once on this thread when it is, else on the thread that completes it. A
    /// request on a handle that goes away without being invalidated is dropped uncalled.
    void requestInvalidationTrace(TraceCallback callback);

    /// The trace, when the handle has been invalidated and the invalidations that caused it
    /// have finished recording; absent otherwise (before the invalidation, or while asked from
    /// inside the cascade that is invalidating it).
    std::optional<InvalidationTrace> invalidationTrace() const;

  private:
    friend class Invalidatable;
    friend void manage(std::shared_ptr<CancellationToken> token, InvalidationHandle& handle);

    struct TraceStorage {
        /// Set once, when the handle is invalidated.
        std::optional<Link> link;
        /// Trace requests made before the link was set.
        std::vector<TraceCallback> requests;
    };

    void invalidateHandle(Callsite callsite);
    void setInvalidationLink(Link link);
    /// Builds the trace that starts at `link` and gives it to `callback`.
    static void deliverTrace(const Link& link, TraceCallback callback);

    Callsite initializationCallsite_;
    std::optional<std::string> name_;
    std::shared_ptr<SingleFireEvent> invalidation_;
    ThreadSafe<TraceStorage> traceStorage_;
};

/// Binds `object` and each of `others` together: for each other object in order, `object`
/// tracks it and then it tracks `object`. Invalidating any of them therefore invalidates all.
/// Each binding holds the other handle only until the invalidation.
MIRELS_EXPORT void bindInvalidation(const Invalidatable& object,
                                    std::span<const Invalidatable* const> others);

/// The variadic form of `bindInvalidation`.
template <class... Others>
    requires(std::is_base_of_v<Invalidatable, Others> && ...)
void bindInvalidation(const Invalidatable& object, const Others&... others) {
    const Invalidatable* const list[] = {static_cast<const Invalidatable*>(&others)..., nullptr};
    bindInvalidation(object, std::span<const Invalidatable* const>(list, sizeof...(Others)));
}

/// Hands `token` to `handle`: the handle cancels it when it is invalidated, or at once when it
/// has been already. The token must then not be cancelled elsewhere (a second cancel is reported
/// as always).
MIRELS_EXPORT void manage(std::shared_ptr<CancellationToken> token, InvalidationHandle& handle);

/// Cancels `token` when `object` is invalidated: `manage` with the object's handle.
MIRELS_EXPORT void trackInvalidation(std::shared_ptr<CancellationToken> token,
                                     const Invalidatable& object);

}  // namespace mirels
