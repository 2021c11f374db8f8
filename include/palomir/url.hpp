#pragma once

/// @file
/// URLs as the data model and the requests carry them.

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "palomir/export.hpp"

namespace palomir {

/// A URL (or, from parseReference, a relative URI reference), validated and
/// taken apart. Only texts that a strict URL parser accepts as they stand make a Url:
/// blanks, control characters, non-ASCII bytes and the characters that
/// RFC 3986 never allows unescaped ("<>\"{}|\\^`) are refused, not escaped.
class PALOMIR_API Url {
public:
    /// One name=value pair of a query.
    struct QueryItem {
        /// Percent-decoded.
        std::string name;
        /// Percent-decoded; nothing for a bare "name" without "=".
        std::optional<std::string> value;
        /// Names and values equal.
        friend bool operator==(const QueryItem&, const QueryItem&) = default;
    };

    /// The URL for an absolute URL text in the hierarchical "scheme://" form,
    /// or nothing when the text is not one. This is the form fetched over HTTP.
    static std::optional<Url> parse(std::string_view text);

    /// Any absolute URI (a scheme, then what RFC 3986 allows after it, a
    /// fragment included): "https://h/x", "mailto:a@b.example", "tel:+1-555",
    /// "urn:isbn:0451450523", "myapp:open". Nothing for relative or empty text.
    static std::optional<Url> parseAbsolute(std::string_view text);

    /// Any non-empty RFC 3986 URI reference, absolute or relative
    /// ("images/a.png", "/help", "//cdn.example/a", "?q", "#top").
    static std::optional<Url> parseReference(std::string_view text);

    /// Whether the URL names a scheme (always so for parse and parseAbsolute).
    bool isAbsolute() const { return !_scheme.empty(); }

    /// The text as given (and validated).
    const std::string& absoluteString() const { return _text; }

    /// The scheme ("https"); references returned by these accessors
    /// are borrowed from the Url.
    const std::string& scheme() const { return _scheme; }
    /// The user name of the authority, when given.
    const std::optional<std::string>& user() const { return _user; }
    /// The password of the authority, when given.
    const std::optional<std::string>& password() const { return _password; }
    /// The host as written; an IPv6 literal keeps its brackets.
    const std::string& host() const { return _host; }
    /// The port written in the URL, if any (no scheme default is filled in).
    std::optional<int> port() const { return _port; }
    /// The path, percent-decoded; "" when the URL has none.
    const std::string& path() const { return _path; }
    /// The path as written (still percent-encoded).
    const std::string& rawPath() const { return _rawPath; }
    /// The text after "?" as written, when there is a "?".
    const std::optional<std::string>& query() const { return _query; }
    /// Query items in order, names and values percent-decoded ("+" kept).
    std::vector<QueryItem> queryItems() const;

    /// Last component of the decoded path ("" for "/" or no path).
    std::string lastPathComponent() const;
    /// Extension of the last path component without the dot ("" when none).
    std::string pathExtension() const;

    /// Equal texts: no normalisation, so "HTTPS://a" and "https://a" differ.
    friend bool operator==(const Url& a, const Url& b) { return a._text == b._text; }

private:
    Url() = default;
    std::string _text;
    std::string _scheme;
    std::optional<std::string> _user;
    std::optional<std::string> _password;
    std::string _host;
    std::optional<int> _port;
    std::string _path;
    std::string _rawPath;
    std::optional<std::string> _query;
};

}  // namespace palomir
