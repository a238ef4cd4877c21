#include "companions/settings_service.hpp"

#include <string>
#include <utility>

#include "companions/settings_administration.hpp"
#include "companions/settings_error.hpp"
#include "foundation/log.hpp"
#include "foundation/strings.hpp"
#include "platform/queue.hpp"
#include "settings/settings_keys.hpp"

namespace qm {

namespace {

constexpr std::size_t kLongestReason = 1024;    // bytes of what a peer reports, kept
constexpr std::size_t kMostChangesAtOnce = 64;  // each is read back

Log& log() {
  static Log& log = Log::create(kQMRLogSubsystem, "qmsettingsd");
  return log;
}

std::optional<SettingsTable> tableNamed(const std::string& text) {
  for (const SettingsTable table : {SettingsTable::user, SettingsTable::system})
    if (text == name(table)) return table;
  return std::nullopt;
}

}  // namespace

// What one peer may call, on its connection's queue. It keeps the service.
class SettingsService::Peer final : public SettingsDaemonProtocol {
 public:
  Peer(std::shared_ptr<SettingsService> service, std::int32_t process, std::uint32_t user)
      : service_(std::move(service)), process_(process), user_(user) {}

  void subscribeToChangesWithProtocol(const std::string& protocolName, const XPCEndpoint& endpoint,
                                      Block<void(bool success)> reply) override {
    reply(service_->subscribers_->subscribe(process_, protocolName, endpoint));
  }
  void unsubscribeEndpoint(const XPCEndpoint& endpoint, const std::string& protocolName) override {
    service_->subscribers_->unsubscribe(protocolName, endpoint);
  }

  void getUserAndSystemSettingsWithReply(
      Block<void(const Dictionary&, const Dictionary&, const ErrorPtr&)> reply) override {
    ErrorPtr error;
    const auto settings = service_->store_->current(&error);
    if (settings == nullptr) return reply({}, {}, error);
    reply(settings->user, settings->system, nullptr);
  }
  void getUserSettingsWithReply(Block<void(const Dictionary&, const ErrorPtr&)> reply) override {
    replyWith(&Settings::user, reply);
  }
  void getSystemSettingsWithReply(Block<void(const Dictionary&, const ErrorPtr&)> reply) override {
    replyWith(&Settings::system, reply);
  }
  void getUserWhitelistWithReply(Block<void(const Array&, bool)> reply) override {
    const auto settings = service_->store_->current();
    if (settings == nullptr) return reply({}, false);
    reply(settings->allowList, true);
  }

  void updateWispConfigurationState(std::int64_t state) override {
    change(
        [state](SettingsStore& store) {
          return store.change(SettingsTable::system, {{kWispConfigState, state}});
        },
        [](const ErrorPtr& error) {
          if (error != nullptr)
            QM_LOG_ERROR(log(), "The configuration state of Wisp is not kept: %{public}@", error);
        });
  }
  void updateWispError(const ErrorPtr& error) override {
    if (error == nullptr) return service_->keep({{kWispErrorState, Value()}, {kWispErrorReason, Value()}});
    const std::string reason = lossyUTF8(error->localizedDescription().substr(0, kLongestReason));
    service_->keep({{kWispErrorState, error->code()}, {kWispErrorReason, reason}});
  }
  void setWispErrorState(std::int64_t state) override { service_->keep({{kWispErrorState, state}}); }
  void setTCCAccessGranted(bool granted) override { service_->keep({{kTCCGranted, granted}}); }

  void setSettings(const Dictionary& settings, const std::string& table, Reply reply) override {
    administer(table, reply, settings);
  }
  void removeSettings(const Array& keys, const std::string& table, Reply reply) override {
    Dictionary changes;
    for (const Value& key : keys) {
      const std::string* text = key.as<std::string>();
      changes.emplace(text == nullptr ? std::string() : *text, Value());
    }
    administer(table, reply, changes);
  }
  void setAllowList(const Array& allowList, Reply reply) override {
    if (!mayAdminister(reply)) return;
    change([allowList](SettingsStore& store) { return store.setAllowList(allowList); }, reply);
  }
  void checkSettingsFile(Reply reply) override { reply(service_->store_->fileProblem()); }
  void pushRemoteAction(const std::string& name, const Dictionary& actionData,
                        Block<void(const Array&, const ErrorPtr&)> reply) override {
    const Reply refused = [reply](const ErrorPtr& error) { reply({}, error); };
    if (!mayAdminister(refused)) return;
    if (name.empty()) return refused(makeSettingsError(SettingsError::badValue, "An action needs a name"));
    const bool isPushed = service_->subscribers_->push(
        name, actionData, [reply](const Array& results) { reply(results, nullptr); });
    if (!isPushed)
      refused(makeSettingsError(SettingsError::busy, "Too many actions are waiting for their answers"));
  }

 private:
  void replyWith(Dictionary Settings::*table, const Block<void(const Dictionary&, const ErrorPtr&)>& reply) {
    ErrorPtr error;
    const auto settings = service_->store_->current(&error);
    if (settings == nullptr) return reply({}, error);
    reply((*settings).*table, nullptr);
  }

  bool mayAdminister(const Reply& reply) const {
    if (user_ == 0 || user_ == service_->options_.owner) return true;
    QM_LOG_ERROR(log(), "User %{public}u may not administer the settings", user_);
    reply(makeSettingsError(SettingsError::notAllowed,
                            "Only root and the owner of the installation may change the settings"));
    return false;
  }

  void administer(const std::string& tableName, const Reply& reply, const Dictionary& changes) {
    if (!mayAdminister(reply)) return;
    const std::optional<SettingsTable> table = tableNamed(tableName);
    if (!table)
      return reply(
          makeSettingsError(SettingsError::badValue, "The settings are those of \"user\" or \"system\""));
    if (changes.empty() || changes.size() > kMostChangesAtOnce)
      return reply(
          makeSettingsError(SettingsError::badValue,
                            "Between 1 and " + std::to_string(kMostChangesAtOnce) + " settings at once"));
    change([table = *table, changes](SettingsStore& store) { return store.change(table, changes); }, reply);
  }

  void change(Block<ErrorPtr(SettingsStore&)> work, const Reply& reply) {
    const bool isTaken = service_->changes_.submit(
        [store = service_->store_, work = std::move(work), reply] { reply(work(*store)); });
    if (!isTaken)
      reply(makeSettingsError(SettingsError::busy, "Too many changes of the settings are waiting"));
  }

  const std::shared_ptr<SettingsService> service_;
  const std::int32_t process_;
  const std::uint32_t user_;
};

std::shared_ptr<SettingsService> SettingsService::create(std::shared_ptr<SettingsStore> store,
                                                         Options options) {
  return std::shared_ptr<SettingsService>(new SettingsService(std::move(store), std::move(options)));
}

SettingsService::SettingsService(std::shared_ptr<SettingsStore> store, Options options)
    : store_(std::move(store)),
      options_(std::move(options)),
      peers_(AdmittedPeers::create("qmsettingsd", log(), options_.peers)),
      subscribers_(RemoteActionSubscribers::create(options_.subscribers)),
      changes_(Queue::concurrent("com.quillmarsh.qmsettingsd.changes"), 1, options_.waitingChanges),
      stateWrites_(Queue::concurrent("com.quillmarsh.qmsettingsd.state"), 1, 1) {}

void SettingsService::serve(const std::shared_ptr<RemoteListener>& listener) {
  peers_->serve(listener, [self = shared_from_this()](const RemoteConnection& connection) {
    const auto peer =
        std::make_shared<Peer>(self, connection.processIdentifier(), self->options_.userOf(connection));
    return AdmittedPeers::Served{peer, remoteExport<SettingsDaemonProtocol>(peer)};
  });
}

void SettingsService::keep(const Dictionary& changes) {
  if (!store_->keep(changes)) return;
  static_cast<void>(stateWrites_.submit([store = store_] { store->writeState(); }));
}

}  // namespace qm
