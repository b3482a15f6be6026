#pragma once

// `QKCommandLineProcess`: a thin wrapper around one `ChildProcess`, held strongly as `task()`, so
// that a child can be replaced by a substitute (a subclass made with `initNoTask()` that overrides
// the operations) or observed.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mirels/Export.h"
#include "mirels/cli/ChildProcess.h"
#include "mirels/core/ThreadSafe.h"

namespace mirels {

/// A thin wrapper around one `ChildProcess`, held strongly as `task()`, so that a child can be
/// replaced by a substitute (a subclass made with `initNoTask()` that overrides the operations)
/// or observed.
///
/// Every property and operation forwards one-to-one to the task; a wrapper without a task reads
/// as an unlaunched process (empty values, zero identifiers, not running), ignores changes and
/// signals, and fails to launch with `ProcessError::Step::noProcess`.
///
/// The termination handler is the one thing the wrapper keeps itself (`_terminationHandler`):
/// setting it installs on the task a handler that calls the stored one with this wrapper, never
/// with the task. From the launch until the child ends, that installed handler holds the wrapper,
/// so a caller may drop the wrapper right after launching it; the task releases the handler once
/// it has run, which ends that cycle.
class MIRELS_EXPORT QKCommandLineProcess
    : public std::enable_shared_from_this<QKCommandLineProcess> {
  public:
    using TerminationHandler = std::function<void(const std::shared_ptr<QKCommandLineProcess>&)>;

    virtual ~QKCommandLineProcess() = default;
    QKCommandLineProcess(const QKCommandLineProcess&) = delete;
    QKCommandLineProcess& operator=(const QKCommandLineProcess&) = delete;

    /// Wraps a fresh `ChildProcess`.
    static std::shared_ptr<QKCommandLineProcess> init();
    /// Wraps `task` (which may be null: then as `initNoTask`).
    static std::shared_ptr<QKCommandLineProcess> initWithTask(std::shared_ptr<ChildProcess> task);
    /// Wraps nothing, for substitutes.
    static std::shared_ptr<QKCommandLineProcess> initNoTask();

    // The same three, under the library's usual name for makers of reference types.
    [[nodiscard]] static std::shared_ptr<QKCommandLineProcess> create() { return init(); }
    [[nodiscard]] static std::shared_ptr<QKCommandLineProcess> create(
        std::shared_ptr<ChildProcess> task) {
        return initWithTask(std::move(task));
    }
    [[nodiscard]] static std::shared_ptr<QKCommandLineProcess> createNoTask() {
        return initNoTask();
    }

    /// The wrapped process; null for a wrapper made with `initNoTask`.
    const std::shared_ptr<ChildProcess>& task() const noexcept { return task_; }

    // --- read/write, forwarded ---
    virtual std::optional<std::string> executableURL() const;
    virtual void setExecutableURL(std::optional<std::string> path);
    virtual std::vector<std::string> arguments() const;
    virtual void setArguments(std::vector<std::string> arguments);
    virtual std::optional<ChildProcess::Environment> environment() const;
    virtual void setEnvironment(std::optional<ChildProcess::Environment> environment);
    virtual std::optional<std::string> currentDirectoryURL() const;
    virtual void setCurrentDirectoryURL(std::optional<std::string> path);
    virtual ProcessStandardStream standardInput() const;
    virtual void setStandardInput(ProcessStandardStream stream);
    virtual ProcessStandardStream standardOutput() const;
    virtual void setStandardOutput(ProcessStandardStream stream);
    virtual ProcessStandardStream standardError() const;
    virtual void setStandardError(ProcessStandardStream stream);
    virtual QualityOfService qualityOfService() const;
    virtual void setQualityOfService(QualityOfService qos);

    // --- read-only, forwarded ---
    virtual pid_t processIdentifier() const;
    virtual bool isRunning() const;
    /// As `ChildProcess::terminationStatus` (0 without a task).
    virtual int terminationStatus() const;
    /// As `ChildProcess::terminationReason` (`exit` without a task).
    virtual ProcessTerminationReason terminationReason() const;

    // --- operations, forwarded ---
    virtual bool launchAndReturnError(std::optional<Error>* error = nullptr);
    virtual void interrupt();
    virtual void terminate();
    virtual bool resume();
    virtual bool suspend();

    // --- the termination handler, kept by the wrapper ---
    virtual TerminationHandler terminationHandler() const;
    virtual void setTerminationHandler(TerminationHandler handler);

  protected:
    explicit QKCommandLineProcess(std::shared_ptr<ChildProcess> task) noexcept;

    /// Calls the stored handler with this wrapper.
    void callTerminationHandler();

    /// The stored termination handler.
    ThreadSafe<TerminationHandler> _terminationHandler;

  private:
    /// Installs on the task the handler that calls the stored one; it holds the wrapper strongly
    /// when `strong`, weakly otherwise.
    void installForwardingHandler(bool strong);

    std::shared_ptr<ChildProcess> task_;
};

}  // namespace mirels
