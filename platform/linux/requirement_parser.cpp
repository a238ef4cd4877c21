#include <algorithm>
#include <charconv>
#include <optional>
#include <string>
#include <utility>

#include "foundation/strings.hpp"
#include "platform/linux/requirement.hpp"
#include "platform/linux/requirement_node.hpp"

namespace qm {
namespace {

using NodePtr = std::unique_ptr<const RequirementNode>;
using Operation = RequirementMatch::Operation;

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

int hexadecimalDigit(char c) {
  if (isDigit(c)) return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The bytes; nothing when the digits are none, odd in number or no digits.
std::optional<std::string> bytesFromHexadecimal(std::string_view digits) {
  if (digits.empty() || digits.size() % 2 != 0) return std::nullopt;
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const int high = hexadecimalDigit(digits[i]);
    const int low = hexadecimalDigit(digits[i + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    bytes.push_back(static_cast<char>(high * 16 + low));
  }
  return bytes;
}

struct Token {
  enum class Kind : std::uint8_t { end, word, quoted, hexadecimal, hash, number, symbol, invalid };
  Kind kind = Kind::end;
  std::string text;  // the content: without quotes and escapes, hexadecimal as bytes
  std::size_t offset = 0;
};

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  Token next() {
    Token token;
    if (!skipSpace()) {
      token.kind = Token::Kind::invalid;
      token.offset = text_.size();
      return token;
    }
    token.offset = position_;
    if (position_ == text_.size()) return token;
    token.kind = scan(token.text);
    return token;
  }

 private:
  char at(std::size_t position) const { return position < text_.size() ? text_[position] : '\0'; }

  // False for a comment without an end.
  bool skipSpace() {
    for (;;) {
      position_ = std::min(text_.find_first_not_of(" \t\n", position_), text_.size());
      if (at(position_) == '#' || text_.substr(position_).starts_with("//")) {
        position_ = std::min(text_.find('\n', position_), text_.size());
      } else if (text_.substr(position_).starts_with("/*")) {
        const std::size_t end = text_.find("*/", position_ + 2);
        if (end == std::string_view::npos) return false;
        position_ = end + 2;
      } else {
        return true;
      }
    }
  }

  Token::Kind scan(std::string& text) {
    const char c = text_[position_];
    if (c == '"') return scanQuoted(text);
    if (c == 'H' && at(position_ + 1) == '"') return scanHash(text);
    if (isLetter(c)) return scanWord(text);
    if (c == '0' && at(position_ + 1) == 'x') return scanHexadecimal(text);
    if (isDigit(c)) return scanNumber(text);
    return scanSymbol(text);
  }

  Token::Kind scanQuoted(std::string& text) {
    for (++position_; position_ < text_.size(); ++position_) {
      char c = text_[position_];
      if (c == '"') {
        ++position_;
        return Token::Kind::quoted;
      }
      if (c == '\\' && (c = at(++position_)) != '"') return Token::Kind::invalid;
      text.push_back(c);
    }
    return Token::Kind::invalid;
  }

  Token::Kind scanHash(std::string& text) {
    ++position_;
    std::string digits;
    if (scanQuoted(digits) != Token::Kind::quoted) return Token::Kind::invalid;
    const std::optional<std::string> bytes = bytesFromHexadecimal(digits);
    if (!bytes) return Token::Kind::invalid;
    text = *bytes;
    return Token::Kind::hash;
  }

  Token::Kind scanWord(std::string& text) {
    const std::size_t start = position_;
    const auto isWordCharacter = [](char c) { return isLetter(c) || isDigit(c); };
    while (isWordCharacter(at(position_)) || (at(position_) == '.' && isWordCharacter(at(position_ + 1))))
      ++position_;
    text = text_.substr(start, position_ - start);
    return Token::Kind::word;
  }

  Token::Kind scanHexadecimal(std::string& text) {
    const std::size_t start = position_ += 2;
    while (isLetter(at(position_)) || isDigit(at(position_))) ++position_;
    const std::optional<std::string> bytes = bytesFromHexadecimal(text_.substr(start, position_ - start));
    if (!bytes) return Token::Kind::invalid;
    text = *bytes;
    return Token::Kind::hexadecimal;
  }

  Token::Kind scanNumber(std::string& text) {
    const std::size_t start = position_;
    while (isDigit(at(position_))) ++position_;
    text = text_.substr(start, position_ - start);
    return isLetter(at(position_)) ? Token::Kind::invalid : Token::Kind::number;
  }

  Token::Kind scanSymbol(std::string& text) {
    for (const std::string_view symbol :
         {"==", "<=", ">=", "=", "<", ">", "~", "*", "(", ")", "[", "]", "!", ";", "-"}) {
      if (!text_.substr(position_).starts_with(symbol)) continue;
      text = symbol;
      position_ += symbol.size();
      return Token::Kind::symbol;
    }
    return Token::Kind::invalid;
  }

  std::string_view text_;
  std::size_t position_ = 0;
};

NodePtr makeNode(decltype(RequirementNode::term) term) {
  return std::make_unique<const RequirementNode>(RequirementNode{std::move(term)});
}

// Recursive descent. A function that returns a null node or nothing has left a status and a reason.
class Parser {
 public:
  explicit Parser(std::string_view text) : scanner_(text) { advance(); }

  NodePtr requirement() {
    NodePtr root = expression();
    if (root == nullptr) return nullptr;
    acceptSymbol(";");
    if (token_.kind != Token::Kind::end) return unexpected("the end of the requirement");
    return unsupported_.empty() ? std::move(root) : nullptr;
  }

  OSStatus status() const {
    return reason_.empty() && !unsupported_.empty() ? kSecCSReqUnsupported : kSecCSReqInvalid;
  }
  const std::string& reason() const { return reason_.empty() ? unsupported_ : reason_; }

 private:
  void advance() { token_ = scanner_.next(); }

  bool isSymbol(std::string_view symbol) const {
    return token_.kind == Token::Kind::symbol && token_.text == symbol;
  }
  bool isWord(std::string_view word) const { return token_.kind == Token::Kind::word && token_.text == word; }
  bool acceptSymbol(std::string_view symbol) {
    if (!isSymbol(symbol)) return false;
    advance();
    return true;
  }
  bool acceptWord(std::string_view word) {
    if (!isWord(word)) return false;
    advance();
    return true;
  }
  bool acceptEqual() { return acceptSymbol("=") || acceptSymbol("=="); }

  std::nullptr_t fail(std::string reason) {
    if (reason_.empty()) reason_ = std::move(reason);
    return nullptr;
  }
  std::nullptr_t unexpected(const char* wanted) {
    return fail(std::string("expected ") + wanted + " at byte " + std::to_string(token_.offset));
  }
  // The text may go on, so that what is wrong further on is found; the whole is refused at the end.
  NodePtr unsupported(const std::string& what) {
    if (unsupported_.empty()) unsupported_ = what + " cannot be evaluated on this platform";
    return makeNode(ConstantTerm{false});
  }

  NodePtr expression() {
    AnyTerm any;
    do {
      any.operands.push_back(conjunction());
      if (any.operands.back() == nullptr) return nullptr;
    } while (acceptWord("or"));
    return any.operands.size() == 1 ? std::move(any.operands.front()) : makeNode(std::move(any));
  }

  NodePtr conjunction() {
    AllTerm all;
    do {
      all.operands.push_back(primary());
      if (all.operands.back() == nullptr) return nullptr;
    } while (acceptWord("and"));
    return all.operands.size() == 1 ? std::move(all.operands.front()) : makeNode(std::move(all));
  }

  NodePtr primary() {
    if (isSymbol("!") || isSymbol("(")) return nested();
    if (token_.kind != Token::Kind::word) return unexpected("a term");
    const std::string word = token_.text;
    advance();
    if (word == "always" || word == "true") return makeNode(ConstantTerm{true});
    if (word == "never" || word == "false") return makeNode(ConstantTerm{false});
    if (word == "identifier") return identifier();
    if (word == "info") return info();
    if (word == "anchor") return anchor();
    if (word == "certificate" || word == "cert") return certificateOfSlot();
    if (word == "notarized" || word == "legacy") return unsupported(word);
    if (word == "cdhash") return codeHash();
    if (word == "entitlement") return entitlement();
    if (word == "platform") return platformNumber();
    return fail("\"" + word + "\" is no term of the language");
  }

  NodePtr nested() {
    if (++depth_ > kMaximumRequirementNesting) return fail("the requirement is nested too deeply");
    NodePtr result;
    if (acceptSymbol("!")) {
      NodePtr operand = primary();
      if (operand == nullptr) return nullptr;
      result = makeNode(NotTerm{std::move(operand)});
    } else {
      advance();
      result = expression();
      if (result == nullptr) return nullptr;
      if (!acceptSymbol(")")) return unexpected("\")\"");
    }
    --depth_;
    return result;
  }

  std::optional<std::string> string() {
    if (token_.kind != Token::Kind::word && token_.kind != Token::Kind::quoted &&
        token_.kind != Token::Kind::hexadecimal) {
      unexpected("a string");
      return std::nullopt;
    }
    std::string text = std::move(token_.text);
    advance();
    return text;
  }

  // "[" string "]"
  std::optional<std::string> key() {
    if (!acceptSymbol("[")) {
      unexpected("\"[\"");
      return std::nullopt;
    }
    std::optional<std::string> text = string();
    if (!text) return std::nullopt;
    if (!acceptSymbol("]")) {
      unexpected("\"]\"");
      return std::nullopt;
    }
    return text;
  }

  std::optional<RequirementMatch> match() {
    if (acceptEqual()) return wildcardMatch();
    if (acceptSymbol("~")) return comparison(Operation::contains);
    if (acceptSymbol("<=")) return comparison(Operation::lessOrEqual);
    if (acceptSymbol(">=")) return comparison(Operation::greaterOrEqual);
    if (acceptSymbol("<")) return comparison(Operation::less);
    if (acceptSymbol(">")) return comparison(Operation::greater);
    if (acceptWord("absent")) return RequirementMatch{Operation::absent, {}};
    acceptWord("exists");
    return RequirementMatch{Operation::exists, {}};
  }

  std::optional<RequirementMatch> comparison(Operation operation) {
    std::optional<std::string> operand = string();
    if (!operand) return std::nullopt;
    return RequirementMatch{operation, std::move(*operand)};
  }

  std::optional<RequirementMatch> wildcardMatch() {
    const bool before = acceptSymbol("*");
    std::optional<RequirementMatch> result = comparison(Operation::equal);
    if (!result) return std::nullopt;
    const bool after = acceptSymbol("*");
    if (before || after)
      result->operation = before && after ? Operation::contains
                          : before        ? Operation::endsWith
                                          : Operation::beginsWith;
    return result;
  }

  NodePtr identifier() {
    acceptEqual();
    std::optional<std::string> text = string();
    if (!text) return nullptr;
    return makeNode(IdentifierTerm{std::move(*text)});
  }

  NodePtr info() {
    std::optional<std::string> name = key();
    if (!name) return nullptr;
    std::optional<RequirementMatch> suffix = match();
    if (!suffix) return nullptr;
    return makeNode(InfoTerm{std::move(*name), std::move(*suffix)});
  }

  NodePtr entitlement() {
    if (!key() || !match()) return nullptr;
    return unsupported("entitlement");
  }

  NodePtr codeHash() {
    acceptEqual();
    if (token_.kind != Token::Kind::hash && token_.kind != Token::Kind::quoted) return unexpected("a hash");
    advance();
    return unsupported("cdhash");
  }

  NodePtr platformNumber() {
    if (acceptEqual()) {
      if (token_.kind != Token::Kind::number) return unexpected("a number");
      advance();
    }
    return unsupported("platform");
  }

  NodePtr anchor() {
    if (acceptWord("apple")) {
      if (acceptWord("generic")) return makeNode(AnchoredTerm{});
      return unsupported("\"anchor apple\" without \"generic\"");
    }
    if (acceptWord("generic")) {
      if (acceptWord("apple")) return makeNode(AnchoredTerm{});
      return unexpected("\"apple\"");
    }
    return certificate(kAnchorSlot);
  }

  NodePtr certificateOfSlot() {
    if (acceptWord("leaf")) return certificate(kLeafSlot);
    if (acceptWord("root") || acceptWord("anchor")) return certificate(kAnchorSlot);
    const bool fromRoot = acceptSymbol("-");
    if (token_.kind != Token::Kind::number) return unexpected("a certificate's place");
    CertificateSlot slot = 0;
    const auto [end, failure] =
        std::from_chars(token_.text.data(), token_.text.data() + token_.text.size(), slot);
    if (failure != std::errc()) return unexpected("a smaller number");
    advance();
    return certificate(fromRoot ? -slot : slot);
  }

  NodePtr certificate(CertificateSlot slot) {
    if (acceptWord("trusted")) return makeNode(CertificateTrustedTerm{slot});
    if (isSymbol("[")) return certificateField(slot);
    acceptEqual();
    if (token_.kind == Token::Kind::quoted) {
      advance();
      return unsupported("a certificate file");
    }
    CertificateHash hash{};
    if (token_.kind != Token::Kind::hash || token_.text.size() != hash.size())
      return unexpected("\"trusted\", a key or a certificate's hash");
    std::copy(token_.text.begin(), token_.text.end(), hash.begin());
    advance();
    return makeNode(CertificateHashTerm{slot, hash});
  }

  NodePtr certificateField(CertificateSlot slot) {
    std::optional<std::string> name = key();
    if (!name) return nullptr;
    std::optional<RequirementMatch> suffix = match();
    if (!suffix) return nullptr;
    constexpr std::string_view kSubject = "subject.";
    if (name->starts_with(kSubject)) {
      std::string part = name->substr(kSubject.size());
      if (part.starts_with("C-")) return unsupported("\"" + *name + "\"");
      return makeNode(CertificateSubjectTerm{slot, std::move(part), std::move(*suffix)});
    }
    for (const std::string_view prefix : {"field.", "extension.", "policy.", "timestamp."})
      if (name->starts_with(prefix)) return unsupported("\"" + *name + "\"");
    return fail("\"" + *name + "\" is no key of a certificate");
  }

  Scanner scanner_;
  Token token_;
  int depth_ = 0;
  std::string reason_;
  std::string unsupported_;
};

}  // namespace

OSStatus SecRequirement::parse(std::string_view text, SecRequirementPtr& requirement, std::string* reason) {
  requirement = nullptr;
  if (text.size() > kMaximumRequirementLength) {
    if (reason != nullptr) *reason = "the requirement is too long";
    return kSecCSReqInvalid;
  }
  if (!isValidUTF8(text)) {
    if (reason != nullptr) *reason = "the requirement is no UTF-8 text";
    return kSecCSReqInvalid;
  }
  Parser parser(text);
  NodePtr root = parser.requirement();
  if (root == nullptr) {
    if (reason != nullptr) *reason = parser.reason();
    return parser.status();
  }
  requirement = std::make_shared<const SecRequirement>(std::move(root));
  return kSecSuccess;
}

}  // namespace qm
