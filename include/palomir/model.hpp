#pragma once

// The records that the backend sends and receives, with their strict JSON
// decoding (decode<T>, decodeJson<T> from palomir/decoding.hpp) and encoding
// (encode overloads). Every record is a plain value.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <nlohmann/json.hpp>

#include "palomir/decoding.hpp"
#include "palomir/export.hpp"
#include "palomir/result.hpp"
#include "palomir/url.hpp"
#include "palomir/uuid.hpp"

namespace palomir {

// ---------------------------------------------------------------------------
// Dates

/// An instant, to the millisecond: the precision of the backend's dates.
using Date = std::chrono::sys_time<std::chrono::milliseconds>;

/// The backend's one date form, "yyyy-MM-ddTHH:mm:ss.SSS" followed by "Z" or a
/// "+hh:mm"/"-hh:mm" offset. Parsing is strict (exactly three fraction digits,
/// upper-case 'T' and 'Z', ranges checked, leap years honoured); formatting
/// writes UTC with "Z". Independent of locale, calendar and time zone.
struct PALOMIR_API PlRFC3339Formatter {
    std::optional<Date> parse(std::string_view text) const;
    std::string format(Date date) const;
};

/// The shared formatter: plRFC3339.parse(text), plRFC3339.format(date).
inline constexpr PlRFC3339Formatter plRFC3339{};

PALOMIR_API std::optional<Date> plRFC3339Parse(std::string_view text);
PALOMIR_API std::string plRFC3339Format(Date date);

// ---------------------------------------------------------------------------
// Check-in schedule

enum class CheckinEvent { launch, foreground };

/// The wire string ("launch", "foreground").
PALOMIR_API std::string_view toString(CheckinEvent event);
/// Exact match only (letter case counts).
PALOMIR_API std::optional<CheckinEvent> checkinEventFromString(std::string_view text);

struct NextCheckin {
    std::optional<Date> automaticallyAt;
    std::vector<CheckinEvent> onEvent;

    friend bool operator==(const NextCheckin&, const NextCheckin&) = default;
};

// ---------------------------------------------------------------------------
// Theme and colours

/// Components from 0.0 to 1.0. Decoded from a hexadecimal string; encoded as
/// an object {"red","green","blue","alpha"} (which is not decodable again).
struct PALOMIR_API Color {
    double red = 0.0;
    double green = 0.0;
    double blue = 0.0;
    double alpha = 0.0;

    /// "#RGB", "#RRGGBB", "#RRGGBBAA" (the "#" optional, surrounding white
    /// space ignored). Anything malformed gives transparent black; never fails.
    static Color fromHex(std::string_view text);

    friend bool operator==(const Color&, const Color&) = default;
};

struct ColorGradient {
    struct Point {
        double x = 0.0;
        double y = 0.0;
        friend bool operator==(const Point&, const Point&) = default;
    };

    std::vector<Color> colors;
    Point startPoint;
    Point endPoint;

    friend bool operator==(const ColorGradient&, const ColorGradient&) = default;
};

struct Theme {
    Color textColor;
    Color backgroundColor;
    std::optional<ColorGradient> backgroundGradient;
    std::optional<Color> innerBackgroundColor;
    std::optional<Color> actionTextColor;
    std::optional<Color> actionButtonColor;

    friend bool operator==(const Theme&, const Theme&) = default;
};

// ---------------------------------------------------------------------------
// Notes

struct PALOMIR_API Note {
    Uuid identifier{std::array<std::uint8_t, 16>{}};
    std::string title;
    std::optional<std::string> subtitle;
    std::string content;
    std::optional<Url> image;

    /// Multi-line text for logs (the identifier is left out).
    std::string description() const;
};

// ---------------------------------------------------------------------------
// Lockdown

enum class LockdownType { hard, soft };

PALOMIR_API std::string_view toString(LockdownType type);
PALOMIR_API std::optional<LockdownType> lockdownTypeFromString(std::string_view text);

struct Lockdown {
    bool active = false;
    std::optional<LockdownType> type;
    std::string latestVersion;
    std::optional<std::string> title;
    std::optional<Url> titleImage;
    std::optional<std::string> subtitle;
    std::optional<Url> actionURL;
    std::optional<std::string> actionTitle;
    std::optional<std::string> dismissTitle;
    std::optional<std::vector<Note>> notes;
};

/// Either lockedDown(type) or open.
class PALOMIR_API LockdownResult {
public:
    static LockdownResult lockedDown(LockdownType type) { return LockdownResult(type); }
    static LockdownResult open() { return LockdownResult(std::nullopt); }

    bool isLockedDown() const { return _type.has_value(); }
    bool isOpen() const { return !_type.has_value(); }
    /// The kind of lockdown in force; nothing when open.
    std::optional<LockdownType> type() const { return _type; }

    friend bool operator==(const LockdownResult&, const LockdownResult&) = default;

private:
    explicit LockdownResult(std::optional<LockdownType> type) : _type(type) {}
    std::optional<LockdownType> _type;
};

/// In force exactly when `active`; a lockdown without a type counts as soft.
/// The latest version is deliberately not compared with the host's version.
PALOMIR_API LockdownResult evaluate(const Lockdown& lockdown);

// ---------------------------------------------------------------------------
// Services

enum class ServiceState { ok, warning, error, disabled, unknown };

PALOMIR_API std::string_view toString(ServiceState state);
/// Strict: an unknown string gives nothing. (Decoding from JSON is tolerant
/// and turns unknown strings into ServiceState::unknown.)
PALOMIR_API std::optional<ServiceState> serviceStateFromString(std::string_view text);

/// Severity order ok < warning < error < disabled < unknown.
PALOMIR_API bool operator<(ServiceState a, ServiceState b);
PALOMIR_API bool operator<=(ServiceState a, ServiceState b);
PALOMIR_API bool operator>(ServiceState a, ServiceState b);
PALOMIR_API bool operator>=(ServiceState a, ServiceState b);

struct ServiceMessage {
    std::optional<std::string> title;
    std::optional<std::string> description;
    std::optional<std::string> dismiss;
    std::optional<Url> url;
    std::optional<std::string> urlTitle;
    std::optional<Color> backgroundColorLight;
    std::optional<Color> backgroundColorDark;

    friend bool operator==(const ServiceMessage&, const ServiceMessage&) = default;
};

struct Service {
    std::string name;
    std::string identifier;
    std::optional<Url> url;
    bool available = false;
    ServiceState state = ServiceState::unknown;
    bool triggersMessage = false;
    std::optional<ServiceMessage> message;
    std::optional<Url> image;

    friend bool operator==(const Service&, const Service&) = default;
};

struct ServicesResponse {
    std::vector<Service> services;
};

struct ServiceResponse {
    Service service;
};

// ---------------------------------------------------------------------------
// Configuration

struct PALOMIR_API Configuration {
    std::string version;
    std::optional<NextCheckin> nextCheckin;
    Theme theme;
    std::vector<Note> notes;
    Lockdown lockdown;
    std::optional<std::vector<Service>> services;

    /// The services whose triggersMessage is set, in listed order.
    std::vector<Service> messageServices() const;
    /// The first of messageServices in the worst state, or nothing.
    std::optional<Service> worstService() const;
};

// ---------------------------------------------------------------------------
// Feedback, attachments and direct uploads

/// A file held in memory, to be attached to feedback.
struct PALOMIR_API Attachment {
    std::string filename;
    std::string contentType;
    std::vector<std::uint8_t> data;

    /// Without a content type, it is derived from the file name's extension
    /// (mimeTypeForExtension), "" when unknown.
    static Attachment fromData(std::string filename, std::optional<std::string> contentType,
                               std::vector<std::uint8_t> data);
    /// The bytes are the text's UTF-8 encoding.
    static Attachment fromText(std::string filename, std::optional<std::string> contentType,
                               std::string_view text);
    /// The whole contents of the file at `path`, named after its last path
    /// component, the content type derived from its extension. Fails with the
    /// system's error (std::system_category) when the file cannot be read.
    static Result<Attachment, std::error_code> fromFile(const std::filesystem::path& path);
};

/// The media type for a file name extension without the dot ("txt" ->
/// "text/plain"), case-insensitive; "" when unknown. Reads /etc/mime.types
/// once where present, else uses a built-in table of common types.
PALOMIR_API std::string mimeTypeForExtension(std::string_view extension);

/// Something that supplies files to attach to a feedback.
class PALOMIR_API AttachmentProvider {
public:
    virtual ~AttachmentProvider();
    virtual std::vector<Attachment> feedbackAttachments() = 0;
};

/// The announcement of one file before its bytes are uploaded.
struct DirectUpload {
    std::string filename;
    std::int64_t byteSize = 0;
    std::string checksum;
    std::string contentType;
    /// Kept beside the record for the upload step; never written to JSON.
    std::optional<std::vector<std::uint8_t>> data;
};

struct DirectUploadResponse {
    /// Where and how to upload the bytes.
    struct DirectUpload {
        std::string url;
        std::map<std::string, std::string> headers;
    };

    std::int64_t identifier = 0;
    std::string key;
    std::string filename;
    std::string signedID;
    DirectUpload directUpload;
};

struct Feedback {
    std::string title;
    std::string message;
    std::string submittedBy;
    std::optional<std::vector<std::string>> files;
};

// ---------------------------------------------------------------------------
// Decoding (strict, see palomir/decoding.hpp) and encoding

PALOMIR_DECLARE_DECODING(Date);
PALOMIR_DECLARE_DECODING(CheckinEvent);
PALOMIR_DECLARE_DECODING(NextCheckin);
PALOMIR_DECLARE_DECODING(Color);
PALOMIR_DECLARE_DECODING(ColorGradient);
PALOMIR_DECLARE_DECODING(Theme);
PALOMIR_DECLARE_DECODING(Note);
PALOMIR_DECLARE_DECODING(LockdownType);
PALOMIR_DECLARE_DECODING(Lockdown);
PALOMIR_DECLARE_DECODING(ServiceState);
PALOMIR_DECLARE_DECODING(ServiceMessage);
PALOMIR_DECLARE_DECODING(Service);
PALOMIR_DECLARE_DECODING(ServicesResponse);
PALOMIR_DECLARE_DECODING(ServiceResponse);
PALOMIR_DECLARE_DECODING(Configuration);
PALOMIR_DECLARE_DECODING(DirectUpload);
PALOMIR_DECLARE_DECODING(DirectUploadResponse::DirectUpload);
PALOMIR_DECLARE_DECODING(DirectUploadResponse);
PALOMIR_DECLARE_DECODING(Feedback);

/// Required members are always written; absent optionals are left out.
PALOMIR_API nlohmann::json encode(Date date);
PALOMIR_API nlohmann::json encode(CheckinEvent event);
PALOMIR_API nlohmann::json encode(const NextCheckin& value);
PALOMIR_API nlohmann::json encode(const Color& value);
PALOMIR_API nlohmann::json encode(const ColorGradient& value);
PALOMIR_API nlohmann::json encode(const Theme& value);
PALOMIR_API nlohmann::json encode(const Note& value);
PALOMIR_API nlohmann::json encode(LockdownType type);
PALOMIR_API nlohmann::json encode(const Lockdown& value);
PALOMIR_API nlohmann::json encode(ServiceState state);
PALOMIR_API nlohmann::json encode(const ServiceMessage& value);
PALOMIR_API nlohmann::json encode(const Service& value);
PALOMIR_API nlohmann::json encode(const ServicesResponse& value);
PALOMIR_API nlohmann::json encode(const ServiceResponse& value);
PALOMIR_API nlohmann::json encode(const Configuration& value);
/// "data" is never written.
PALOMIR_API nlohmann::json encode(const DirectUpload& value);
PALOMIR_API nlohmann::json encode(const DirectUploadResponse::DirectUpload& value);
PALOMIR_API nlohmann::json encode(const DirectUploadResponse& value);
PALOMIR_API nlohmann::json encode(const Feedback& value);

}  // namespace palomir
