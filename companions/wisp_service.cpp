#include "companions/wisp_service.hpp"

#include <algorithm>
#include <string>
#include <utility>

#include "companions/wisp_address.hpp"
#include "companions/wisp_error.hpp"
#include "foundation/log.hpp"
#include "platform/queue.hpp"
#include "reputation/backends/QMRWispProtocol.hpp"

namespace qm {

namespace {

constexpr std::size_t kWaitingAnalyses = 256;

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "qmwpcored");
  return log;
}

Queue queue(const char* name) {
  return Queue::concurrent(std::string("com.quillmarsh.qmwpcored.") + name);
}

}  // namespace

// What one peer may call, on its connection's queue.
class WispService::Peer final : public QMRWispServiceProtocol, public std::enable_shared_from_this<Peer> {
 public:
  Peer(std::shared_ptr<WispService> service, std::int32_t process, std::uint32_t user)
      : service_(std::move(service)), process_(process), user_(user) {}

  // --- Scans ---

  void qvsScan(const std::optional<URL>& url, std::uint32_t timeout, QvsScanCallback callback) override {
    const std::optional<WispAddress> address = url ? wispAddress(*url) : std::nullopt;
    if (!address || std::holds_alternative<FilePath>(*address))
      return refuse(callback, WispError::badRequest, "The URL of a Qvs scan is a hash or on the web");
    answer(lookups(), timeout, callback,
           [answers = service_->answers_, address = *address](const WispAnswers::Scan&, ErrorPtr*) {
             const auto* web = std::get_if<WebURL>(&address);
             return web != nullptr ? answers->lookUp(*web) : answers->lookUp(std::get<SHA1Value>(address));
           });
  }

  // The metadata is for a cloud that keeps it; there is none here.
  void cloudScan(const std::optional<URL>& url, const Dictionary&, std::uint32_t timeout,
                 CloudScanCallback callback) override {
    const std::optional<WispAddress> address = url ? wispAddress(*url) : std::nullopt;
    if (!address || std::holds_alternative<SHA1Value>(*address))
      return refuse(callback, WispError::badRequest, "The URL of a cloud scan is of a file or on the web");
    if (const auto* file = std::get_if<FilePath>(&*address)) return scanFile(*file, timeout, callback);
    answer(lookups(), timeout, callback,
           [answers = service_->answers_, url = std::get<WebURL>(*address)](
               const WispAnswers::Scan&, ErrorPtr*) { return answers->scan(url); });
  }

  void fileScan(const Array&, std::uint64_t, const std::shared_ptr<const QMRWispFileScanParametersObjC>&,
                std::uint32_t, FileScanCallback callback) override {
    refuse(callback, WispError::notOffered, "File scans are not offered here");
  }

  // --- Configuration ---

  void getConfiguration(ConfigurationCallback callback) override {
    callback(service_->configuration_.configuration());
  }
  void setConfiguration(const std::shared_ptr<const QMRWispConfigurationObjC>& configuration,
                        ErrorCallback callback) override {
    change(callback,
           [&](WispService& service) { return service.configuration_.setConfiguration(configuration); });
  }
  void clearCache(ErrorCallback callback) override {
    change(callback, [](WispService& service) {
      service.answers_->clearCache();
      return nullptr;
    });
  }
  void getSettingValue(std::int64_t key, SettingValueResponse response) override {
    response(service_->configuration_.setting(key), nullptr);
  }
  void getSettingValueSync(std::int64_t key, SettingValueResponse response) override {
    getSettingValue(key, std::move(response));
  }
  void setSettingValue(const Value& value, std::int64_t key, ErrorCallback callback) override {
    change(callback, [&](WispService& service) { return service.configuration_.setSetting(key, value); });
  }

  // --- What this daemon has no use for ---

  void notifyChannelUpdate(std::uint64_t, const std::optional<URL>&, ErrorCallback callback) override {
    callback(makeWispError(WispError::notOffered, "There are no update channels here"));
  }
  void notifyChannelUpdateSync(std::uint64_t channel, const std::optional<URL>& path,
                               ErrorCallback callback) override {
    notifyChannelUpdate(channel, path, std::move(callback));
  }
  void subscribeToChangesWithProtocol(const std::string&, const XPCEndpoint&,
                                      Block<void(bool success)> reply) override {
    reply(false);
  }
  void unsubscribeEndpoint(const XPCEndpoint&, const std::string&) override {}

  std::string description() const override { return "peer " + std::to_string(process_); }

 private:
  template <class Response>
  using Callback = Block<void(const std::shared_ptr<const Response>& response, const ErrorPtr& error)>;

  // One kind of work, and how much of it is this peer's.
  struct Work {
    BoundedWork& all;
    const std::shared_ptr<const int>& tickets;  // one more owner for each of the peer's that is not done
    std::size_t limit;
  };
  Work lookups() { return {service_->lookups_, lookupTickets_, service_->options_.lookupsOfOnePeer}; }
  Work scans() { return {service_->scans_, scanTickets_, service_->options_.scansOfOnePeer}; }

  template <class Response>
  static void refuse(const Callback<Response>& callback, WispError code, const char* text) {
    QM_LOG_ERROR(log(), "A call is refused: %{public}@", std::string(text));
    callback(nullptr, makeWispError(code, text));
  }

  template <class Change>
  void change(const ErrorCallback& callback, const Change& change) {
    if (user_ == 0 || user_ == service_->options_.owner) return callback(change(*service_));
    QM_LOG_ERROR(log(), "User %{public}u may not change anything", user_);
    callback(makeWispError(WispError::notAllowed,
                           "Only root and the owner of the installation may change anything here"));
  }

  void scanFile(const FilePath& file, std::uint32_t timeout, const CloudScanCallback& callback) {
    answer(scans(), timeout, callback,
           [service = service_, file](const WispAnswers::Scan& scan, ErrorPtr* error) {
             std::optional<ScannedFile> analyzed;
             auto response = service->answers_->scan(file, scan, analyzed, error);
             if (analyzed) service->remember(*analyzed);
             return response;
           });
  }

  // Asks the question behind the bounds of its work, and answers the call with what comes of it, or with an
  // error when that takes longer than the time-out.
  template <class Response, class Question>
  void answer(const Work& work, std::uint32_t timeout, const Callback<Response>& callback,
              Question question) {
    const auto late = [callback] {
      refuse(callback, WispError::timedOut, "There was no answer within the time-out");
    };
    if (timeout == 0) return late();
    const auto limit = std::min(std::chrono::seconds(timeout), service_->options_.longestTimeout);
    const auto deadlines = service_->deadlines_;
    const auto call = deadlines->begin(CallDeadlines::Clock::now() + limit, late);
    const WispAnswers::Scan scan{call.first, [deadlines, call, weak = weak_from_this()] {
                                   return deadlines->isPending(call) && !weak.expired();
                                 }};
    const bool isTaken =
        isWithinShare(work) && work.all.submit([=, ticket = work.tickets, question = std::move(question)] {
          if (!scan.isWanted()) return static_cast<void>(deadlines->end(call));
          ErrorPtr error;
          const std::shared_ptr<const Response> response = question(scan, &error);
          if (deadlines->end(call)) callback(error == nullptr ? response : nullptr, error);
        });
    if (!isTaken && deadlines->end(call)) refuse(callback, WispError::busy, "Too many calls are waiting");
  }

  static bool isWithinShare(const Work& work) {
    return static_cast<std::size_t>(work.tickets.use_count() - 1) < work.limit;
  }

  const std::shared_ptr<WispService> service_;
  const std::int32_t process_;
  const std::uint32_t user_;
  const std::shared_ptr<const int> lookupTickets_ = std::make_shared<const int>();
  const std::shared_ptr<const int> scanTickets_ = std::make_shared<const int>();
};

std::shared_ptr<WispService> WispService::create(std::shared_ptr<WispAnswers> answers, Options options) {
  return std::shared_ptr<WispService>(new WispService(std::move(answers), std::move(options)));
}

WispService::WispService(std::shared_ptr<WispAnswers> answers, Options options)
    : answers_(std::move(answers)),
      options_(std::move(options)),
      peers_(AdmittedPeers::create("qmwpcored", log(), options_.peers)),
      deadlines_(CallDeadlines::create("com.quillmarsh.qmwpcored.deadlines")),
      lookups_(queue("lookups"), options_.runningLookups, options_.waitingLookups),
      scans_(queue("scans"), options_.runningScans, options_.waitingScans),
      analyses_(queue("analyses"), 1, kWaitingAnalyses) {}

void WispService::serve(const std::shared_ptr<RemoteListener>& listener) {
  peers_->serve(listener, [self = shared_from_this()](const RemoteConnection& connection) {
    const auto peer =
        std::make_shared<Peer>(self, connection.processIdentifier(), self->options_.userOf(connection));
    AdmittedPeers::Served served{peer, remoteExport<QMRWispServiceProtocol>(peer)};
    allowWispSettingValues(served.exported.interface());
    return served;
  });
}

// Behind the answer: another program may be changing the store for seconds.
void WispService::remember(const ScannedFile& analyzed) {
  if (!analyses_.submit([answers = answers_, analyzed] { answers->remember(analyzed); }))
    QM_LOG_ERROR(log(), "An analysis is not remembered: too many are waiting");
}

}  // namespace qm
