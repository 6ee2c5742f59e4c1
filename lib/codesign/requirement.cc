// SPDX-License-Identifier: MIT
/*
 * The code requirement language: a recursive-descent parser to a small tree
 * and an evaluator of that tree over the evidence of a valid signature.
 *
 * Grammar (precedence "!" over "and" over "or"; parentheses; comments
 * between tokens in C and C++ style):
 *
 *   expr    := andExpr ("or" andExpr)*
 *   andExpr := unary ("and" unary)*
 *   unary   := "!" unary | "(" expr ")" | term
 *   term    := "identifier" ["="] string
 *            | "anchor" ("apple" ["generic"] | "trusted" | "=" hash)
 *            | ("cert" | "certificate") pos ("trusted" | "=" hash | "[" field "]" match)
 *            | "info" "[" key "]" match
 *            | "cdhash" hash
 *   pos     := "leaf" | "root" | N | "-" N        (N from the leaf, -N from the anchor)
 *   match   := "exists" | "=" ["*"] string ["*"] | ("<" | ">" | "<=" | ">=") string
 *   hash    := H"<64 hex digits>"                 (SHA-256)
 *   string  := "..." (backslash escapes only '"' and '\') | bare word
 *
 * Anything else is an error naming the byte offset where parsing stopped.
 * The text, the nesting and the tree are bounded, so a hostile requirement
 * costs little. During evaluation a constraint on something that is absent
 * (a certificate past the chain, a missing field or key) is false.
 */
#include <algorithm>
#include <cstring>

#include <openssl/x509.h>

#include "codesignInt.h"

namespace halcyx::codesign {

enum class ReqOp {
   And, Or, Not, Identifier, AnchorVendor, AnchorTrusted, AnchorHash,
   CertTrusted, CertHash, CertField, Info, CdHash
};
enum class MatchOp { Exists, Equal, Prefix, Suffix, Contains, Less, Greater, LessEq, GreaterEq };

struct RequirementNode {
   explicit RequirementNode(ReqOp o) : op(o) {}
   ReqOp op;
   int left = -1;
   int right = -1;
   int pos = 0;         // certificate: >= 0 from the leaf, < 0 from the anchor
   int nid = 0;         // certificate field
   std::string key;     // info key
   MatchOp match = MatchOp::Exists;
   std::string value;   // identifier or match operand
   Digest hash{};
};

Requirement::Requirement() = default;
Requirement::~Requirement() = default;
Requirement::Requirement(Requirement &&) noexcept = default;
Requirement &Requirement::operator=(Requirement &&) noexcept = default;

namespace {

constexpr size_t kMaxText = 16 * 1024;
constexpr int kMaxDepth = 64;
constexpr size_t kMaxNodes = 1024;

struct FieldName {
   const char *name;
   int nid;
};
constexpr FieldName kFields[] = {
   {"subject.CN", NID_commonName},          {"subject.O", NID_organizationName},
   {"subject.OU", NID_organizationalUnitName}, {"subject.C", NID_countryName},
   {"subject.L", NID_localityName},         {"subject.ST", NID_stateOrProvinceName},
   {"subject.emailAddress", NID_pkcs9_emailAddress},
};

enum class Tok { End, Word, String, Hash, LParen, RParen, LBracket, RBracket, Not, Eq, Lt, Gt, Le, Ge, Star, Minus };

bool IsWordChar(char c) {
   return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
          c == '_' || c == '.' || c == '-';
}

class Parser {
public:
   Parser(std::string_view text, Requirement *req) : text_(text), req_(req) {}

   bool Run(std::string *error) {
      bool ok = text_.size() <= kMaxText && Next();
      if (ok) {
         int root = Expr(0);
         ok = root >= 0 && (tok_ == Tok::End || Fail("end of requirement"));
         req_->root = root;
      } else if (error_.empty()) {
         error_ = "requirement too long";
      }
      if (!ok) {
         *error = error_;
      }
      return ok;
   }

private:
   bool Fail(const char *expected) {
      if (error_.empty()) {
         error_ = std::string(expected) + " expected at offset " + std::to_string(tokStart_);
      }
      return false;
   }

   bool LexFail(const char *what, size_t at) {
      if (error_.empty()) {
         error_ = std::string(what) + " at offset " + std::to_string(at);
      }
      return false;
   }

   void SkipBlanksAndComments() {
      while (at_ < text_.size()) {
         char c = text_[at_];
         if (c == ' ' || c == '\t' || c == '\n' || c == '\r') {
            at_++;
         } else if (text_.substr(at_, 2) == "//") {
            size_t nl = text_.find('\n', at_);
            at_ = nl == std::string_view::npos ? text_.size() : nl + 1;
         } else if (text_.substr(at_, 2) == "/*") {
            size_t close = text_.find("*/", at_ + 2);
            at_ = close == std::string_view::npos ? std::string_view::npos : close + 2;
            if (at_ == std::string_view::npos) {
               at_ = text_.size() + 1;  // unterminated: reported by Next
               return;
            }
         } else {
            return;
         }
      }
   }

   bool LexString() {
      size_t start = at_++;
      value_.clear();
      while (at_ < text_.size() && text_[at_] != '"') {
         char c = text_[at_++];
         if (c == '\\') {
            if (at_ >= text_.size() || (text_[at_] != '"' && text_[at_] != '\\')) {
               return LexFail("bad escape", at_ - 1);
            }
            c = text_[at_++];
         } else if (c == '\0') {
            return LexFail("NUL in string", at_ - 1);
         }
         value_.push_back(c);
      }
      if (at_ >= text_.size()) {
         return LexFail("unterminated string", start);
      }
      at_++;
      return true;
   }

   bool Next() {
      SkipBlanksAndComments();
      if (at_ > text_.size()) {
         return LexFail("unterminated comment", text_.size());
      }
      tokStart_ = at_;
      if (at_ == text_.size()) {
         tok_ = Tok::End;
         return true;
      }
      char c = text_[at_];
      if (c == 'H' && text_.substr(at_, 2) == "H\"") {
         at_++;
         tok_ = Tok::Hash;
         return LexString();
      }
      if (c == '"') {
         tok_ = Tok::String;
         return LexString();
      }
      if (IsWordChar(c) && c != '-') {
         size_t end = at_;
         while (end < text_.size() && IsWordChar(text_[end])) {
            end++;
         }
         tok_ = Tok::Word;
         value_ = std::string(text_.substr(at_, end - at_));
         at_ = end;
         return true;
      }
      static constexpr struct { const char *text; Tok tok; } kPunct[] = {
         {"<=", Tok::Le}, {">=", Tok::Ge}, {"(", Tok::LParen}, {")", Tok::RParen},
         {"[", Tok::LBracket}, {"]", Tok::RBracket}, {"!", Tok::Not}, {"=", Tok::Eq},
         {"<", Tok::Lt}, {">", Tok::Gt}, {"*", Tok::Star}, {"-", Tok::Minus},
      };
      for (const auto &p : kPunct) {
         if (text_.substr(at_, strlen(p.text)) == p.text) {
            tok_ = p.tok;
            at_ += strlen(p.text);
            return true;
         }
      }
      return LexFail("unexpected character", at_);
   }

   bool IsWord(const char *w) const { return tok_ == Tok::Word && value_ == w; }

   bool Accept(Tok t) { return tok_ == t && Next(); }

   int Add(RequirementNode n) {
      if (req_->nodes.size() >= kMaxNodes) {
         Fail("a shorter requirement");
         return -1;
      }
      req_->nodes.push_back(std::move(n));
      return static_cast<int>(req_->nodes.size() - 1);
   }

   int Binary(ReqOp op, int left, int right) {
      if (left < 0 || right < 0) {
         return -1;
      }
      RequirementNode n(op);
      n.left = left;
      n.right = right;
      return Add(std::move(n));
   }

   int Expr(int depth) {
      int left = AndExpr(depth);
      while (left >= 0 && IsWord("or")) {
         left = Next() ? Binary(ReqOp::Or, left, AndExpr(depth)) : -1;
      }
      return left;
   }

   int AndExpr(int depth) {
      int left = Unary(depth);
      while (left >= 0 && IsWord("and")) {
         left = Next() ? Binary(ReqOp::And, left, Unary(depth)) : -1;
      }
      return left;
   }

   int Unary(int depth) {
      if (depth >= kMaxDepth) {
         Fail("less nesting");
         return -1;
      }
      if (tok_ == Tok::Not) {
         if (!Next()) {
            return -1;
         }
         int inner = Unary(depth + 1);
         RequirementNode n(ReqOp::Not);
         n.left = inner;
         return inner < 0 ? -1 : Add(std::move(n));
      }
      if (tok_ == Tok::LParen) {
         if (!Next()) {
            return -1;
         }
         int inner = Expr(depth + 1);
         return inner >= 0 && (tok_ == Tok::RParen || Fail("')'")) && Next() ? inner : -1;
      }
      return Term();
   }

   // A quoted string or a bare word that is not an operator keyword.
   bool StringValue(std::string *out) {
      if (tok_ != Tok::String && !(tok_ == Tok::Word && !IsWord("and") && !IsWord("or"))) {
         return Fail("string");
      }
      *out = value_;
      return Next();
   }

   bool HashValue(Digest *out) {
      if (tok_ != Tok::Hash) {
         return Fail("H\"hash\"");
      }
      if (value_.size() != 64) {
         return Fail("64 hexadecimal digits");
      }
      for (size_t i = 0; i < 32; i++) {
         unsigned v = 0;
         for (char c : std::string_view(value_).substr(2 * i, 2)) {
            int d = (c >= '0' && c <= '9') ? c - '0'
                    : (c >= 'a' && c <= 'f') ? c - 'a' + 10
                    : (c >= 'A' && c <= 'F') ? c - 'A' + 10 : -1;
            if (d < 0) {
               return Fail("64 hexadecimal digits");
            }
            v = v * 16 + static_cast<unsigned>(d);
         }
         (*out)[i] = static_cast<uint8_t>(v);
      }
      return Next();
   }

   bool Match(RequirementNode *n) {
      if (IsWord("exists")) {
         n->match = MatchOp::Exists;
         return Next();
      }
      static constexpr struct { Tok tok; MatchOp op; } kCompare[] = {
         {Tok::Lt, MatchOp::Less}, {Tok::Gt, MatchOp::Greater},
         {Tok::Le, MatchOp::LessEq}, {Tok::Ge, MatchOp::GreaterEq},
      };
      for (const auto &c : kCompare) {
         if (tok_ == c.tok) {
            n->match = c.op;
            return Next() && StringValue(&n->value);
         }
      }
      if (!Accept(Tok::Eq)) {
         return Fail("'exists', '=' or a comparison");
      }
      bool lead = tok_ == Tok::Star;
      if (lead && !Next()) {
         return false;
      }
      if (tok_ != Tok::String) {
         return Fail("quoted string");
      }
      n->value = value_;
      if (!Next()) {
         return false;
      }
      bool trail = tok_ == Tok::Star;
      if (trail && !Next()) {
         return false;
      }
      n->match = lead && trail ? MatchOp::Contains
                 : lead        ? MatchOp::Suffix
                 : trail       ? MatchOp::Prefix
                               : MatchOp::Equal;
      return true;
   }

   bool Position(int *pos) {
      bool negative = tok_ == Tok::Minus;
      if (negative && !Next()) {
         return false;
      }
      if (!negative && IsWord("leaf")) {
         *pos = 0;
         return Next();
      }
      if (!negative && IsWord("root")) {
         *pos = -1;
         return Next();
      }
      if (tok_ != Tok::Word || value_.empty() || value_.size() > 3 ||
          value_.find_first_not_of("0123456789") != std::string::npos) {
         return Fail("certificate position");
      }
      int v = std::stoi(value_);
      if (negative && v == 0) {
         return Fail("certificate position");
      }
      *pos = negative ? -v : v;
      return Next();
   }

   int Term() {
      RequirementNode n(ReqOp::Identifier);
      bool ok;
      if (IsWord("identifier")) {
         ok = Next() && (tok_ != Tok::Eq || Next()) && StringValue(&n.value);
      } else if (IsWord("anchor")) {
         ok = Next();
         if (ok && IsWord("apple")) {
            n.op = ReqOp::AnchorVendor;
            ok = Next() && (!IsWord("generic") || Next());
         } else if (ok && IsWord("trusted")) {
            n.op = ReqOp::AnchorTrusted;
            ok = Next();
         } else if (ok && tok_ == Tok::Eq) {
            n.op = ReqOp::AnchorHash;
            ok = Next() && HashValue(&n.hash);
         } else {
            ok = ok && Fail("'apple', 'trusted' or '='");
         }
      } else if (IsWord("cert") || IsWord("certificate")) {
         ok = Next() && Position(&n.pos);
         if (ok && IsWord("trusted")) {
            n.op = ReqOp::CertTrusted;
            ok = Next();
         } else if (ok && tok_ == Tok::Eq) {
            n.op = ReqOp::CertHash;
            ok = Next() && HashValue(&n.hash);
         } else if (ok && tok_ == Tok::LBracket) {
            n.op = ReqOp::CertField;
            ok = Next() && tok_ == Tok::Word;
            for (const FieldName &f : kFields) {
               if (ok && value_ == f.name) {
                  n.nid = f.nid;
               }
            }
            ok = (ok && n.nid != 0) || Fail("certificate field");
            ok = ok && Next() && (tok_ == Tok::RBracket || Fail("']'")) && Next() && Match(&n);
         } else {
            ok = ok && Fail("'trusted', '=' or '['");
         }
      } else if (IsWord("info")) {
         n.op = ReqOp::Info;
         ok = Next() && (tok_ == Tok::LBracket || Fail("'['")) && Next() && StringValue(&n.key) &&
              (tok_ == Tok::RBracket || Fail("']'")) && Next() && Match(&n);
      } else if (IsWord("cdhash")) {
         n.op = ReqOp::CdHash;
         ok = Next() && HashValue(&n.hash);
      } else {
         ok = Fail("requirement term");
      }
      return ok ? Add(std::move(n)) : -1;
   }

   std::string_view text_;
   Requirement *req_;
   size_t at_ = 0;
   size_t tokStart_ = 0;
   Tok tok_ = Tok::End;
   std::string value_;
   std::string error_;
};

bool Matches(const RequirementNode &n, std::string_view s) {
   std::string_view v = n.value;
   switch (n.match) {
   case MatchOp::Exists: return true;
   case MatchOp::Equal: return s == v;
   case MatchOp::Prefix: return s.substr(0, v.size()) == v;
   case MatchOp::Suffix: return s.size() >= v.size() && s.substr(s.size() - v.size()) == v;
   case MatchOp::Contains: return s.find(v) != std::string_view::npos;
   case MatchOp::Less: return s < v;
   case MatchOp::Greater: return s > v;
   case MatchOp::LessEq: return s <= v;
   case MatchOp::GreaterEq: return s >= v;
   }
   return false;
}

Digest DerHash(X509 *cert) {
   unsigned char *der = nullptr;
   int len = i2d_X509(cert, &der);
   Digest d = len > 0 ? Sha256(der, static_cast<size_t>(len)) : Digest{};
   OPENSSL_free(der);
   return d;
}

X509 *CertAt(const Evidence &ev, int pos) {
   auto n = static_cast<int>(ev.chain.size());
   int i = pos >= 0 ? pos : n + pos;
   return i >= 0 && i < n ? ev.chain[static_cast<size_t>(i)].get() : nullptr;
}

bool FieldMatches(const RequirementNode &n, X509 *cert) {
   X509_NAME *name = X509_get_subject_name(cert);
   for (int i = X509_NAME_get_index_by_NID(name, n.nid, -1); i >= 0;
        i = X509_NAME_get_index_by_NID(name, n.nid, i)) {
      unsigned char *utf8 = nullptr;
      int len = ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i)));
      bool hit = len >= 0 && Matches(n, std::string_view(reinterpret_cast<char *>(utf8),
                                                         static_cast<size_t>(len)));
      OPENSSL_free(utf8);
      if (hit) {
         return true;
      }
   }
   return false;
}

bool Contains(const std::vector<Digest> &set, const Digest &d) {
   return std::find(set.begin(), set.end(), d) != set.end();
}

bool Eval(const Requirement &req, int index, const Evidence &ev) {
   const RequirementNode &n = req.nodes[static_cast<size_t>(index)];
   X509 *cert = nullptr;
   switch (n.op) {
   case ReqOp::And: return Eval(req, n.left, ev) && Eval(req, n.right, ev);
   case ReqOp::Or: return Eval(req, n.left, ev) || Eval(req, n.right, ev);
   case ReqOp::Not: return !Eval(req, n.left, ev);
   case ReqOp::Identifier: return ev.cd.identifier == n.value;
   case ReqOp::AnchorVendor: return !ev.chain.empty() && ev.vendorAnchor;
   case ReqOp::AnchorTrusted: return !ev.chain.empty() && Contains(ev.trustedAnchors, ev.anchorHash);
   case ReqOp::AnchorHash: return !ev.chain.empty() && ev.anchorHash == n.hash;
   case ReqOp::CdHash: return ev.cdhash == n.hash;
   case ReqOp::Info: {
      plist_t v = ev.info ? plist_dict_get_item(static_cast<plist_t>(ev.info.get()), n.key.c_str())
                          : nullptr;
      if (!v || n.match == MatchOp::Exists) {
         return v != nullptr;
      }
      uint64_t len = 0;
      const char *s = PLIST_IS_STRING(v) ? plist_get_string_ptr(v, &len) : nullptr;
      return s && Matches(n, std::string_view(s, len));
   }
   case ReqOp::CertTrusted:
   case ReqOp::CertHash:
   case ReqOp::CertField:
      cert = CertAt(ev, n.pos);
      if (!cert) {
         return false;
      }
      if (n.op == ReqOp::CertTrusted) {
         return Contains(ev.trustedAnchors, DerHash(cert));
      }
      return n.op == ReqOp::CertHash ? DerHash(cert) == n.hash : FieldMatches(n, cert);
   }
   return false;
}

}  // namespace

bool ParseRequirement(std::string_view text, Requirement *out, std::string *error) {
   Requirement req;
   if (!Parser(text, &req).Run(error)) {
      return false;
   }
   *out = std::move(req);
   return true;
}

bool EvaluateRequirement(const Requirement &req, const Evidence &ev) {
   return req.root >= 0 && Eval(req, req.root, ev);
}

bool FormatProductRequirement(const char *identifier, std::string *out) {
   // Inserted as it stands, so it must not be able to close its quotes.
   if (!identifier || !IdentifierIsValid(identifier) || strchr(identifier, '"') ||
       strchr(identifier, '\\')) {
      return false;
   }
   *out = std::string("identifier \"") + identifier +
          "\" and anchor apple generic and anchor trusted and "
          "(cert leaf[subject.CN] = *\"Zorvex, Inc.\"* or  "
          "cert leaf[subject.CN] = *\"Tarnwick Wireless LLC\"*) ";
   return true;
}

}  // namespace halcyx::codesign
