#include "tools/qmr/settings_daemon.hpp"

#include <atomic>
#include <future>
#include <utility>

#include "companions/settings_administration.hpp"
#include "companions/settings_error.hpp"
#include "platform/remote_protocol.hpp"
#include "platform/service_manager.hpp"
#include "settings/QMRNamespace.hpp"
#include "settings/qmsettingsdProtocol.hpp"

namespace qm::qmr {
namespace {

// The first answer to one call; later ones, and those that nobody waits for any more, are dropped.
template <class Result>
class Answer {
 public:
  void set(Result result) const {
    if (!state_->isSet.exchange(true)) state_->promise.set_value(std::move(result));
  }
  // Nothing when it did not come in time.
  std::optional<Result> wait(std::chrono::seconds timeout) const {
    std::future<Result> future = state_->promise.get_future();
    if (future.wait_for(timeout) != std::future_status::ready) return std::nullopt;
    return future.get();
  }

 private:
  struct State {
    std::promise<Result> promise;
    std::atomic<bool> isSet = false;
  };
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

constexpr const char* kQmrErrorDomain = "com.quillmarsh.qmr";

ErrorPtr makeTimeout() {
  return makeError(kQmrErrorDomain, 1,
                   {{kLocalizedDescriptionKey, "the settings daemon did not answer in time"}});
}

}  // namespace

SettingsDaemon::SettingsDaemon(std::chrono::seconds timeout)
    : timeout_(timeout), serviceName_(QMRNamespace::namespacedWithId(kSettingsServiceName)) {}

std::string SettingsDaemon::text(const ErrorPtr& error) const {
  if (error->domain() != kCocoaErrorDomain) return error->localizedDescription();
  if (error->code() == static_cast<std::int64_t>(RemoteErrorCode::interrupted))
    return "the settings daemon " + serviceName_ + " ended, or does not admit this program";
  const std::string place = servicePlace(serviceName_);
  return "the settings daemon " + serviceName_ + " cannot be reached" + (place.empty() ? "" : " at " + place);
}

std::optional<AllSettings> SettingsDaemon::fetch(QMRSettingsClient& client, std::string& problem) const {
  using Reply = std::pair<AllSettings, ErrorPtr>;
  const Answer<Reply> answer;
  const auto failed = [answer](const ErrorPtr& error) { answer.set({{}, error}); };
  client.settingsdProxy(failed).call<&qmsettingsdProtocol::getUserAndSystemSettingsWithReply>(
      Block<void(const Dictionary&, const Dictionary&, const ErrorPtr&)>(
          [answer](const Dictionary& user, const Dictionary& system, const ErrorPtr& error) {
            answer.set({{.user = user, .system = system, .allowList = {}}, error});
          }));
  std::optional<Reply> reply = answer.wait(timeout_);
  if (!reply || reply->second != nullptr) {
    problem = text(reply ? reply->second : makeTimeout());
    return std::nullopt;
  }
  using ListReply = std::pair<Array, ErrorPtr>;
  const Answer<ListReply> listAnswer;
  client.settingsdProxy([listAnswer](const ErrorPtr& error) {
          listAnswer.set({{}, error});
        })
      .call<&qmsettingsdProtocol::getUserWhitelistWithReply>(
          Block<void(const Array&, bool)>([listAnswer](const Array& list, bool success) {
            listAnswer.set({list, success ? nullptr
                                          : makeError(kQmrErrorDomain, 2,
                                                      {{kLocalizedDescriptionKey,
                                                        "the settings daemon has no allow-list"}})});
          }));
  std::optional<ListReply> list = listAnswer.wait(timeout_);
  if (!list || list->second != nullptr) {
    problem = text(list ? list->second : makeTimeout());
    return std::nullopt;
  }
  reply->first.allowList = std::move(list->first);
  return std::move(reply->first);
}

ErrorPtr SettingsDaemon::administer(
    const Block<void(const RemoteProxy&, const Block<void(const ErrorPtr&)>&)>& call) const {
  const auto client =
      std::make_shared<QMRServiceClient>(kSettingsServiceName, remoteInterface<SettingsAdministration>());
  const Answer<ErrorPtr> answer;
  const Block<void(const ErrorPtr&)> done = [answer](const ErrorPtr& error) { answer.set(error); };
  call(client->proxyWithErrorCallback(done), done);
  const std::optional<ErrorPtr> error = answer.wait(timeout_);
  client->shutdown();
  return error ? *error : makeTimeout();
}

bool SettingsDaemon::change(const std::string& table, const std::string& key, const Value& value,
                            bool& wasThere, std::string& problem) const {
  const ErrorPtr error = administer([&](const RemoteProxy& proxy, const Block<void(const ErrorPtr&)>& done) {
    if (value.isNull())
      proxy.call<&SettingsAdministration::removeSettings>(Array{key}, table, done);
    else
      proxy.call<&SettingsAdministration::setSettings>(Dictionary{{key, value}}, table, done);
  });
  wasThere = error == nullptr || error->domain() != kSettingsErrorDomain ||
             error->code() != static_cast<std::int64_t>(SettingsError::noSuchSetting);
  if (error != nullptr) problem = text(error);
  return error == nullptr;
}

std::string SettingsDaemon::fileProblem() const {
  const ErrorPtr error = administer([](const RemoteProxy& proxy, const Block<void(const ErrorPtr&)>& done) {
    proxy.call<&SettingsAdministration::checkSettingsFile>(done);
  });
  return error != nullptr && error->domain() == kSettingsErrorDomain ? text(error) : std::string();
}

bool SettingsDaemon::setAllowList(const Array& allowList, std::string& problem) const {
  const ErrorPtr error = administer([&](const RemoteProxy& proxy, const Block<void(const ErrorPtr&)>& done) {
    proxy.call<&SettingsAdministration::setAllowList>(allowList, done);
  });
  if (error != nullptr) problem = text(error);
  return error == nullptr;
}

std::optional<Array> SettingsDaemon::push(const std::string& name, const Dictionary& data,
                                          std::string& problem) const {
  const auto all = std::make_shared<qm::Property<Array>>();
  const ErrorPtr error = administer([&](const RemoteProxy& proxy, const Block<void(const ErrorPtr&)>& done) {
    proxy.call<&SettingsAdministration::pushRemoteAction>(
        name, data,
        Block<void(const Array&, const ErrorPtr&)>(
            [all, done](const Array& results, const ErrorPtr& failure) {
              all->set(results);
              done(failure);
            }));
  });
  if (error == nullptr) return all->get();
  problem = text(error);
  return std::nullopt;
}

}  // namespace qm::qmr
