// How answers about URLs are written: a table for people, JSON lines for programs, and the counts.
#pragma once

#include <cstddef>
#include <memory>
#include <ostream>
#include <string>

#include "tools/qmr/url_answer.hpp"

namespace qm::qmr {

// Made for one thread at a time.
class URLReport {
 public:
  virtual ~URLReport() = default;
  // Written out when it returns.
  virtual void add(const URLAnswer& answer) = 0;
};

// The backend is the name of the one that is asked.
std::unique_ptr<URLReport> makeURLTable(std::ostream& output, std::string backend, bool colour);
std::unique_ptr<URLReport> makeURLJson(std::ostream& output, std::string backend);

class URLSummary {
 public:
  void add(const URLAnswer& answer);
  // A question that got no answer because the run ended.
  void addUnanswered() { ++unanswered_; }

  std::size_t answeredURLs() const { return unsafe_ + unknown_ + safe_; }
  // "4 URLs: 1 unsafe, 1 unknown, 1 safe; 1 not answered"
  std::string text() const;
  int exitStatus() const;

 private:
  std::size_t unsafe_ = 0;
  std::size_t unknown_ = 0;
  std::size_t safe_ = 0;
  std::size_t unanswered_ = 0;
};

}  // namespace qm::qmr
