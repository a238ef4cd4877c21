// A program of an installation that asks the agent for a hash and prints the verdict, or the error's code.
#include <iostream>

#include "companions/completions.hpp"
#include "reputation/backends/SVKSkyvaultServiceClient.hpp"
#include "settings/QMRNamespace.hpp"

int main() {
  const auto client =
      SVKSkyvaultServiceClient::create(QMRNamespace::namespacedWithId(qm::skyvault::kServiceName));
  if (client == nullptr) return 1;
  qm::test::Completions completions;
  client->queryReputationForFileHash(std::string(64, 'a'), qm::test::kPatience, completions.make());
  const qm::test::Answer answer = completions.waitForOne();
  std::cout << (answer.error == nullptr ? answer.response->safetyVerdict.value
                                        : "error " + std::to_string(answer.error->code()));
}
