#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "model/json_reader.hpp"

namespace palomir::model {
namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Length of the well-formed UTF-8 sequence at `p` (not ASCII), or 0: no
// overlong forms, no surrogates, nothing beyond U+10FFFF.
std::size_t utf8Length(const char* p, const char* end) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(p[i]); };
    const auto avail = static_cast<std::size_t>(end - p);
    const unsigned char lead = byte(0);
    unsigned char low = 0x80, high = 0xBF;
    std::size_t length = 0;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;
        if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;
        if (lead == 0xF4) high = 0x8F;
    } else {
        return 0;
    }
    if (avail < length) return 0;
    if (byte(1) < low || byte(1) > high) return 0;
    for (std::size_t i = 2; i < length; ++i)
        if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
    return length;
}

bool hex4(const char* p, const char* end, char32_t& out) {
    if (end - p < 4) return false;
    char32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        const char c = p[i];
        int digit;
        if (c >= '0' && c <= '9') digit = c - '0';
        else if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
        else return false;
        value = (value << 4) | static_cast<char32_t>(digit);
    }
    out = value;
    return true;
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

class Reader {
public:
    Reader(std::string_view text, std::vector<JsonNode>& nodes, std::string& unescaped)
        : _p(text.data()), _end(text.data() + text.size()), _size(text.size()), _nodes(nodes), _unescaped(unescaped) {}

    bool document();

private:
    struct Open {
        std::uint32_t index;
        std::uint32_t count;
        bool object;
    };

    void skipSpace() {
        while (_p != _end && isSpace(*_p)) ++_p;
    }
    JsonNode& add(JsonKind kind) {
        JsonNode& node = _nodes.emplace_back();
        node.kind = kind;
        node.span = 1;
        node.size = 0;
        node.unsigned_ = 0;
        return node;
    }
    bool literal(const char* word, std::size_t length) {
        if (static_cast<std::size_t>(_end - _p) < length || std::memcmp(_p, word, length) != 0) return false;
        _p += length;
        return true;
    }
    bool string();
    bool escapedString(const char* start, JsonNode& node);
    bool number();

    const char* _p;
    const char* _end;
    std::size_t _size;
    std::vector<JsonNode>& _nodes;
    std::string& _unescaped;
    std::vector<Open> _open;
};

// `_p` is just past the opening quote.
bool Reader::string() {
    JsonNode& node = add(JsonKind::string);
    const char* const start = _p;
    while (_p != _end) {
        const auto c = static_cast<unsigned char>(*_p);
        if (c == '"') {
            node.text = start;
            node.size = static_cast<std::size_t>(_p - start);
            ++_p;
            return true;
        }
        if (c == '\\') return escapedString(start, node);
        if (c < 0x20) return false;
        if (c < 0x80) {
            ++_p;
            continue;
        }
        const std::size_t length = utf8Length(_p, _end);
        if (length == 0) return false;
        _p += length;
    }
    return false;
}

// `_p` is on the first backslash; what lies before it is plain.
bool Reader::escapedString(const char* start, JsonNode& node) {
    if (_unescaped.capacity() < _size) _unescaped.reserve(_size);
    const std::size_t offset = _unescaped.size();
    _unescaped.append(start, _p);
    while (_p != _end) {
        const auto c = static_cast<unsigned char>(*_p);
        if (c == '"') {
            node.text = _unescaped.data() + offset;
            node.size = _unescaped.size() - offset;
            ++_p;
            return true;
        }
        if (c < 0x20) return false;
        if (c >= 0x80) {
            const std::size_t length = utf8Length(_p, _end);
            if (length == 0) return false;
            _unescaped.append(_p, length);
            _p += length;
            continue;
        }
        if (c != '\\') {
            _unescaped.push_back(static_cast<char>(c));
            ++_p;
            continue;
        }
        if (++_p == _end) return false;
        switch (*_p++) {
            case '"': _unescaped.push_back('"'); break;
            case '\\': _unescaped.push_back('\\'); break;
            case '/': _unescaped.push_back('/'); break;
            case 'b': _unescaped.push_back('\b'); break;
            case 'f': _unescaped.push_back('\f'); break;
            case 'n': _unescaped.push_back('\n'); break;
            case 'r': _unescaped.push_back('\r'); break;
            case 't': _unescaped.push_back('\t'); break;
            case 'u': {
                char32_t cp = 0;
                if (!hex4(_p, _end, cp)) return false;
                _p += 4;
                if (cp >= 0xDC00 && cp <= 0xDFFF) return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    char32_t low = 0;
                    if (_end - _p < 6 || _p[0] != '\\' || _p[1] != 'u' || !hex4(_p + 2, _end, low) || low < 0xDC00 ||
                        low > 0xDFFF)
                        return false;
                    _p += 6;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                }
                appendUtf8(_unescaped, cp);
                break;
            }
            default: return false;
        }
    }
    return false;
}

// Numbers are told apart as nlohmann does: a negative integer that fits is
// signed, a non-negative one that fits is unsigned, everything else a double.
bool Reader::number() {
    const char* const start = _p;
    const bool negative = *_p == '-';
    if (negative) ++_p;
    if (_p == _end) return false;
    if (*_p == '0') {
        ++_p;
    } else if (*_p >= '1' && *_p <= '9') {
        while (_p != _end && isDigit(*_p)) ++_p;
    } else {
        return false;
    }
    bool integral = true;
    if (_p != _end && *_p == '.') {
        integral = false;
        if (++_p == _end || !isDigit(*_p)) return false;
        while (_p != _end && isDigit(*_p)) ++_p;
    }
    if (_p != _end && (*_p == 'e' || *_p == 'E')) {
        integral = false;
        if (++_p != _end && (*_p == '+' || *_p == '-')) ++_p;
        if (_p == _end || !isDigit(*_p)) return false;
        while (_p != _end && isDigit(*_p)) ++_p;
    }
    if (integral) {
        if (negative) {
            std::int64_t value = 0;
            const auto result = std::from_chars(start, _p, value);
            if (result.ec == std::errc() && result.ptr == _p) {
                add(JsonKind::integer).integer = value;
                return true;
            }
        } else {
            std::uint64_t value = 0;
            const auto result = std::from_chars(start, _p, value);
            if (result.ec == std::errc() && result.ptr == _p) {
                add(JsonKind::unsigned_).unsigned_ = value;
                return true;
            }
        }
    }
    // Both this and the C library round to the nearest double; a value out of
    // range is left to nlohmann, which refuses or flushes it in its own way.
    double value = 0;
    const auto result = std::from_chars(start, _p, value);
    if (result.ec != std::errc() || result.ptr != _p || !std::isfinite(value)) return false;
    add(JsonKind::float_).float_ = value;
    return true;
}

bool Reader::document() {
    enum class Next { value, key, afterValue };
    Next next = Next::value;
    skipSpace();
    for (;;) {
        switch (next) {
            case Next::value: {
                if (_p == _end) return false;
                switch (*_p) {
                    case '{':
                    case '[': {
                        const bool object = *_p++ == '{';
                        _open.push_back({static_cast<std::uint32_t>(_nodes.size()), 0, object});
                        add(object ? JsonKind::object : JsonKind::array);
                        skipSpace();
                        if (_p != _end && *_p == (object ? '}' : ']')) {
                            ++_p;
                            _open.pop_back();
                            next = Next::afterValue;
                        } else {
                            next = object ? Next::key : Next::value;
                        }
                        continue;
                    }
                    case '"':
                        ++_p;
                        if (!string()) return false;
                        break;
                    case 't':
                        if (!literal("true", 4)) return false;
                        add(JsonKind::boolean).boolean = true;
                        break;
                    case 'f':
                        if (!literal("false", 5)) return false;
                        add(JsonKind::boolean).boolean = false;
                        break;
                    case 'n':
                        if (!literal("null", 4)) return false;
                        add(JsonKind::null);
                        break;
                    default:
                        if (*_p != '-' && !isDigit(*_p)) return false;
                        if (!number()) return false;
                        break;
                }
                next = Next::afterValue;
                continue;
            }
            case Next::key:
                if (_p == _end || *_p != '"') return false;
                ++_p;
                if (!string()) return false;
                skipSpace();
                if (_p == _end || *_p != ':') return false;
                ++_p;
                skipSpace();
                next = Next::value;
                continue;
            case Next::afterValue: {
                skipSpace();
                if (_open.empty()) return _p == _end;
                Open& open = _open.back();
                ++open.count;
                if (_p == _end) return false;
                if (*_p == ',') {
                    ++_p;
                    skipSpace();
                    next = open.object ? Next::key : Next::value;
                    continue;
                }
                if (*_p != (open.object ? '}' : ']')) return false;
                ++_p;
                JsonNode& node = _nodes[open.index];
                node.size = open.count;
                node.span = static_cast<std::uint32_t>(_nodes.size() - open.index);
                _open.pop_back();
                continue;
            }
        }
    }
}

}  // namespace

bool JsonDocument::parse(std::string_view text) {
    _nodes.clear();
    _unescaped.clear();
    // Spans are 32 bits wide.
    if (text.size() >= std::numeric_limits<std::uint32_t>::max()) return false;
    _nodes.reserve(text.size() / 16 + 4);
    Reader reader(text, _nodes, _unescaped);
    return reader.document();
}

void JsonDocument::load(const json& root) {
    _nodes.clear();
    _unescaped.clear();
    struct Open {
        const json* value;
        json::const_iterator it;
        std::uint32_t index;
    };
    std::vector<Open> open;
    const auto add = [this, &open](const json& value) {
        const auto index = static_cast<std::uint32_t>(_nodes.size());
        JsonNode& node = _nodes.emplace_back();
        node.span = 1;
        node.size = 0;
        node.unsigned_ = 0;
        switch (value.type()) {
            case json::value_t::null: node.kind = JsonKind::null; break;
            case json::value_t::boolean:
                node.kind = JsonKind::boolean;
                node.boolean = value.get<bool>();
                break;
            case json::value_t::number_integer:
                node.kind = JsonKind::integer;
                node.integer = value.get<std::int64_t>();
                break;
            case json::value_t::number_unsigned:
                node.kind = JsonKind::unsigned_;
                node.unsigned_ = value.get<std::uint64_t>();
                break;
            case json::value_t::number_float:
                node.kind = JsonKind::float_;
                node.float_ = value.get<double>();
                break;
            case json::value_t::string: {
                const auto& text = value.get_ref<const std::string&>();
                node.kind = JsonKind::string;
                node.text = text.data();
                node.size = text.size();
                break;
            }
            case json::value_t::array:
            case json::value_t::object:
                node.kind = value.is_array() ? JsonKind::array : JsonKind::object;
                node.size = value.size();
                open.push_back({&value, value.cbegin(), index});
                break;
            case json::value_t::binary: node.kind = JsonKind::binary; break;
            case json::value_t::discarded: node.kind = JsonKind::discarded; break;
        }
    };
    // Without recursion, since a value nested deep inside a member that no
    // record reads must not exhaust the stack either.
    add(root);
    while (!open.empty()) {
        Open& top = open.back();
        if (top.it == top.value->cend()) {
            _nodes[top.index].span = static_cast<std::uint32_t>(_nodes.size() - top.index);
            open.pop_back();
            continue;
        }
        const auto it = top.it++;
        if (top.value->is_object()) {
            JsonNode& key = _nodes.emplace_back();
            key.kind = JsonKind::string;
            key.span = 1;
            key.text = it.key().data();
            key.size = it.key().size();
        }
        add(*it);
    }
}

}  // namespace palomir::model
