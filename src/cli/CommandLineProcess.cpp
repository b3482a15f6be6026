#include "mirels/cli/CommandLineProcess.h"

#include <utility>

namespace mirels {

namespace {
/// `make_shared` cannot reach the protected constructor; this subclass adds nothing else.
class PlainCommandLineProcess final : public QKCommandLineProcess {
  public:
    explicit PlainCommandLineProcess(std::shared_ptr<ChildProcess> task) noexcept
        : QKCommandLineProcess(std::move(task)) {}
};
}  // namespace

QKCommandLineProcess::QKCommandLineProcess(std::shared_ptr<ChildProcess> task) noexcept
    : task_(std::move(task)) {}

std::shared_ptr<QKCommandLineProcess> QKCommandLineProcess::init() {
    return std::make_shared<PlainCommandLineProcess>(ChildProcess::create());
}

std::shared_ptr<QKCommandLineProcess> QKCommandLineProcess::initWithTask(
    std::shared_ptr<ChildProcess> task) {
    return std::make_shared<PlainCommandLineProcess>(std::move(task));
}

std::shared_ptr<QKCommandLineProcess> QKCommandLineProcess::initNoTask() {
    return std::make_shared<PlainCommandLineProcess>(nullptr);
}

std::optional<std::string> QKCommandLineProcess::executableURL() const {
    return task_ ? task_->executableURL() : std::nullopt;
}
void QKCommandLineProcess::setExecutableURL(std::optional<std::string> path) {
    if (task_) task_->setExecutableURL(std::move(path));
}
std::vector<std::string> QKCommandLineProcess::arguments() const {
    return task_ ? task_->arguments() : std::vector<std::string>();
}
void QKCommandLineProcess::setArguments(std::vector<std::string> arguments) {
    if (task_) task_->setArguments(std::move(arguments));
}
std::optional<ChildProcess::Environment> QKCommandLineProcess::environment() const {
    return task_ ? task_->environment() : std::nullopt;
}
void QKCommandLineProcess::setEnvironment(std::optional<ChildProcess::Environment> environment) {
    if (task_) task_->setEnvironment(std::move(environment));
}
std::optional<std::string> QKCommandLineProcess::currentDirectoryURL() const {
    return task_ ? task_->currentDirectoryURL() : std::nullopt;
}
void QKCommandLineProcess::setCurrentDirectoryURL(std::optional<std::string> path) {
    if (task_) task_->setCurrentDirectoryURL(std::move(path));
}
ProcessStandardStream QKCommandLineProcess::standardInput() const {
    return task_ ? task_->standardInput() : ProcessStandardStream();
}
void QKCommandLineProcess::setStandardInput(ProcessStandardStream stream) {
    if (task_) task_->setStandardInput(std::move(stream));
}
ProcessStandardStream QKCommandLineProcess::standardOutput() const {
    return task_ ? task_->standardOutput() : ProcessStandardStream();
}
void QKCommandLineProcess::setStandardOutput(ProcessStandardStream stream) {
    if (task_) task_->setStandardOutput(std::move(stream));
}
ProcessStandardStream QKCommandLineProcess::standardError() const {
    return task_ ? task_->standardError() : ProcessStandardStream();
}
void QKCommandLineProcess::setStandardError(ProcessStandardStream stream) {
    if (task_) task_->setStandardError(std::move(stream));
}
QualityOfService QKCommandLineProcess::qualityOfService() const {
    return task_ ? task_->qualityOfService() : QualityOfService::standard;
}
void QKCommandLineProcess::setQualityOfService(QualityOfService qos) {
    if (task_) task_->setQualityOfService(qos);
}

pid_t QKCommandLineProcess::processIdentifier() const {
    return task_ ? task_->processIdentifier() : 0;
}
bool QKCommandLineProcess::isRunning() const {
    return task_ && task_->isRunning();
}
int QKCommandLineProcess::terminationStatus() const {
    return task_ ? task_->terminationStatus() : 0;
}
ProcessTerminationReason QKCommandLineProcess::terminationReason() const {
    return task_ ? task_->terminationReason() : ProcessTerminationReason::exit;
}

bool QKCommandLineProcess::launchAndReturnError(std::optional<Error>* error) {
    if (!task_) {
        if (error != nullptr) {
            error->emplace(ProcessError(ProcessError::Step::noProcess, std::string(), 0));
        }
        return false;
    }
    const bool hasHandler =
        _terminationHandler.syncRead([](const TerminationHandler& h) { return bool(h); });
    // While the child runs the installed handler keeps this wrapper alive.
    if (hasHandler) installForwardingHandler(true);
    const bool launched = task_->launchAndReturnError(error);
    if (!launched && hasHandler) installForwardingHandler(false);
    return launched;
}

void QKCommandLineProcess::interrupt() {
    if (task_) task_->interrupt();
}
void QKCommandLineProcess::terminate() {
    if (task_) task_->terminate();
}
bool QKCommandLineProcess::resume() {
    return task_ && task_->resume();
}
bool QKCommandLineProcess::suspend() {
    return task_ && task_->suspend();
}

QKCommandLineProcess::TerminationHandler QKCommandLineProcess::terminationHandler() const {
    return _terminationHandler.syncRead([](const TerminationHandler& h) { return h; });
}

void QKCommandLineProcess::setTerminationHandler(TerminationHandler handler) {
    const bool installing = bool(handler);
    TerminationHandler previous = _terminationHandler.syncWrite(
        [&](TerminationHandler& h) { return std::exchange(h, std::move(handler)); });
    if (!task_) return;
    if (!installing) {
        task_->setTerminationHandler(nullptr);
        return;
    }
    installForwardingHandler(task_->isRunning());
}

void QKCommandLineProcess::installForwardingHandler(bool strong) {
    if (strong) {
        task_->setTerminationHandler([self = shared_from_this()](ChildProcess& /*task*/) {
            self->callTerminationHandler();
        });
    } else {
        task_->setTerminationHandler([weak = weak_from_this()](ChildProcess& /*task*/) {
            if (auto self = weak.lock()) self->callTerminationHandler();
        });
    }
}

void QKCommandLineProcess::callTerminationHandler() {
    TerminationHandler handler = terminationHandler();
    if (handler) handler(shared_from_this());
}

}  // namespace mirels
