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

// What the rules found out about a file is kept behind the answer, one after the other: another program may
// be changing the store for seconds.
FileScans::Scanner scannerOf(const std::shared_ptr<WispAnswers>& answers) {
  const BoundedWork analyses(queue("analyses"), 1, kWaitingAnalyses);
  return [answers, analyses](const FilePath& file, const WispAnswers::Scan& scan, ErrorPtr* error) {
    std::optional<ScannedFile> analyzed;
    auto response = answers->scan(file, scan, analyzed, error);
    if (analyzed && !analyses.submit([answers, found = *analyzed] { answers->remember(found); }))
      QM_LOG_ERROR(log(), "An analysis is not remembered: too many are waiting");
    return response;
  };
}

}  // namespace

// What one peer may call, on its connection's queue.
class WispService::Peer final : public QMRWispServiceProtocol, public std::enable_shared_from_this<Peer> {
 public:
  Peer(std::shared_ptr<WispService> service, const AuditToken& token, std::uint32_t user)
      : service_(std::move(service)),
        process_(token.processID()),
        user_(user),
        lookupShare_(service_->lookupShares_.of(token)),
        scanShare_(service_->scanShares_.of(token)) {}

  // --- Scans ---

  void qvsScan(const std::optional<URL>& url, std::uint32_t timeout, QvsScanCallback callback) override {
    const std::optional<WispAddress> address = url ? wispAddress(*url) : std::nullopt;
    if (!address || std::holds_alternative<FilePath>(*address))
      return refuse(callback, WispError::badRequest, "The URL of a Qvs scan is a hash or on the web");
    answer(timeout, callback, [answers = service_->answers_, address = *address] {
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
    answer(timeout, callback,
           [answers = service_->answers_, url = std::get<WebURL>(*address)] { return answers->scan(url); });
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
    const auto call = begin(timeout, callback);
    if (!call) return;
    const auto end = endOf(*call, callback);
    WorkShare::Ticket ticket = scanShare_->take();
    const bool isTaken = ticket != nullptr &&
                         service_->scans_->ask(file, {isWaiting(*call), call->first, end, std::move(ticket)});
    if (!isTaken) refuse(end, WispError::busy, "Too many calls are waiting");
  }

  // Asks the question behind the bounds of look-ups, and answers the call with what comes of it.
  template <class Response, class Question>
  void answer(std::uint32_t timeout, const Callback<Response>& callback, Question question) {
    const auto call = begin(timeout, callback);
    if (!call) return;
    const auto end = endOf(*call, callback);
    const WorkShare::Ticket ticket = lookupShare_->take();
    const auto work = [ticket, end, isWaiting = isWaiting(*call), question = std::move(question)] {
      if (isWaiting()) end(question(), nullptr);
    };
    if (ticket == nullptr || !service_->lookups_.submit(work))
      refuse(end, WispError::busy, "Too many calls are waiting");
  }

  // Nothing when the call has no time. Once it is over, the call is answered with an error.
  template <class Response>
  std::optional<CallDeadlines::Call> begin(std::uint32_t timeout, const Callback<Response>& callback) {
    const auto late = [callback] {
      refuse(callback, WispError::timedOut, "There was no answer within the time-out");
    };
    if (timeout == 0) {
      late();
      return std::nullopt;
    }
    const auto limit = std::min(std::chrono::seconds(timeout), service_->options_.longestTimeout);
    return service_->deadlines_->begin(CallDeadlines::Clock::now() + limit, late);
  }

  // Answers the call when it is not over.
  template <class Response>
  Callback<Response> endOf(const CallDeadlines::Call& call, const Callback<Response>& callback) {
    return [deadlines = service_->deadlines_, call, callback](const std::shared_ptr<const Response>& response,
                                                              const ErrorPtr& error) {
      if (deadlines->end(call)) callback(response, error);
    };
  }

  Block<bool()> isWaiting(const CallDeadlines::Call& call) {
    return [deadlines = service_->deadlines_, call, weak = weak_from_this()] {
      return deadlines->isPending(call) && !weak.expired();
    };
  }

  const std::shared_ptr<WispService> service_;
  const std::int32_t process_;
  const std::uint32_t user_;
  const std::shared_ptr<WorkShare> lookupShare_;
  const std::shared_ptr<WorkShare> scanShare_;
};

std::shared_ptr<WispService> WispService::create(std::shared_ptr<WispAnswers> answers, Options options) {
  return std::shared_ptr<WispService>(new WispService(std::move(answers), std::move(options)));
}

WispService::WispService(std::shared_ptr<WispAnswers> answers, Options options)
    : answers_(std::move(answers)),
      options_(std::move(options)),
      peers_(AdmittedPeers::create("qmwpcored", log(), options_.peers)),
      deadlines_(CallDeadlines::create("com.quillmarsh.qmwpcored.deadlines")),
      lookupShares_(options_.lookupsOfOneProcess),
      scanShares_(options_.scansOfOneProcess),
      lookups_(queue("lookups"), options_.runningLookups, options_.waitingLookups),
      scans_(FileScans::create(queue("scans"), options_.scans, scannerOf(answers_))) {}

void WispService::serve(const std::shared_ptr<RemoteListener>& listener) {
  peers_->serve(listener, [self = shared_from_this()](const RemoteConnection& connection) {
    const auto peer =
        std::make_shared<Peer>(self, connection.auditToken(), self->options_.userOf(connection));
    AdmittedPeers::Served served{peer, remoteExport<QMRWispServiceProtocol>(peer)};
    allowWispSettingValues(served.exported.interface());
    return served;
  });
}

}  // namespace qm
