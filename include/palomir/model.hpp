#pragma once

/// @file
/// The data model: the records the backend sends and the client submits.

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
    /// The instant, or nothing for text not in the form.
    std::optional<Date> parse(std::string_view text) const;
    /// The UTC form with "Z".
    std::string format(Date date) const;
};

/// The shared formatter: plRFC3339.parse(text), plRFC3339.format(date).
inline constexpr PlRFC3339Formatter plRFC3339{};

/// @{
/// The same as plRFC3339.parse and plRFC3339.format, as plain functions.
PALOMIR_API std::optional<Date> plRFC3339Parse(std::string_view text);
PALOMIR_API std::string plRFC3339Format(Date date);
/// @}

// ---------------------------------------------------------------------------
// Check-in schedule

/// The events on which the backend wants the host to check in.
enum class CheckinEvent { launch, foreground };

/// The wire string ("launch", "foreground").
PALOMIR_API std::string_view toString(CheckinEvent event);
/// Exact match only (letter case counts).
PALOMIR_API std::optional<CheckinEvent> checkinEventFromString(std::string_view text);

/// When the host should check in next: at an instant, on events, or both.
struct NextCheckin {
    /// The instant of the next timed check-in; nothing for none.
    std::optional<Date> automaticallyAt;
    /// The events to check in on, in the backend's order.
    std::vector<CheckinEvent> onEvent;

    /// Member by member.
    friend bool operator==(const NextCheckin&, const NextCheckin&) = default;
};

// ---------------------------------------------------------------------------
// Theme and colours

/// Components from 0.0 to 1.0. Decoded from a hexadecimal string; encoded as
/// an object {"red","green","blue","alpha"} (which is not decodable again).
struct PALOMIR_API Color {
    /// Red, 0.0 to 1.0.
    double red = 0.0;
    /// Green, 0.0 to 1.0.
    double green = 0.0;
    /// Blue, 0.0 to 1.0.
    double blue = 0.0;
    /// Opacity, 0.0 (transparent) to 1.0.
    double alpha = 0.0;

    /// "#RGB", "#RRGGBB", "#RRGGBBAA" (the "#" optional, surrounding white
    /// space ignored). Anything malformed gives transparent black; never fails.
    static Color fromHex(std::string_view text);

    /// Component by component, exactly.
    friend bool operator==(const Color&, const Color&) = default;
};

/// A linear gradient between points in the unit square of the area it fills.
struct ColorGradient {
    /// A point of the unit square: (0, 0) top left, (1, 1) bottom right.
    struct Point {
        /// Horizontal, 0.0 to 1.0.
        double x = 0.0;
        /// Vertical, 0.0 to 1.0.
        double y = 0.0;
        /// Same coordinates.
        friend bool operator==(const Point&, const Point&) = default;
    };

    /// Evenly spaced from start to end.
    std::vector<Color> colors;
    /// Where the first colour lies.
    Point startPoint;
    /// Where the last colour lies.
    Point endPoint;

    /// Member by member.
    friend bool operator==(const ColorGradient&, const ColorGradient&) = default;
};

/// The colours the screens are drawn in.
struct Theme {
    /// Text on the screens.
    Color textColor;
    /// The screens' background, unless a gradient is given.
    Color backgroundColor;
    /// Drawn instead of the background colour when present.
    std::optional<ColorGradient> backgroundGradient;
    /// Panels inside a screen; the background colour when absent.
    std::optional<Color> innerBackgroundColor;
    /// The action button's text.
    std::optional<Color> actionTextColor;
    /// The action button.
    std::optional<Color> actionButtonColor;

    /// Member by member.
    friend bool operator==(const Theme&, const Theme&) = default;
};

// ---------------------------------------------------------------------------
// Notes

/// One note about what is new, shown on the notes screen or with a lockdown.
struct PALOMIR_API Note {
    /// Identifies the note across check-ins.
    Uuid identifier{std::array<std::uint8_t, 16>{}};
    /// Always present.
    std::string title;
    /// Shown under the title when present.
    std::optional<std::string> subtitle;
    /// The body text.
    std::string content;
    /// An image to show with the note.
    std::optional<Url> image;

    /// Multi-line text for logs (the identifier is left out).
    std::string description() const;
};

// ---------------------------------------------------------------------------
// Lockdown

/// How strict a lockdown is: a hard one cannot be closed by the user, a soft one can.
enum class LockdownType { hard, soft };

/// The wire string ("hard", "soft").
PALOMIR_API std::string_view toString(LockdownType type);
/// Exact match only; nothing for any other text.
PALOMIR_API std::optional<LockdownType> lockdownTypeFromString(std::string_view text);

/// What the backend says about blocking the app or asking for an update.
struct Lockdown {
    /// Whether the lockdown is in force.
    bool active = false;
    /// Its strictness; an active lockdown without one is treated as soft.
    std::optional<LockdownType> type;
    /// The host version the backend considers current; informational.
    std::string latestVersion;
    /// The screen's heading.
    std::optional<std::string> title;
    /// An image above the heading.
    std::optional<Url> titleImage;
    /// Text under the heading.
    std::optional<std::string> subtitle;
    /// Opened by the action button (an app store page, a web page).
    std::optional<Url> actionURL;
    /// The action button's label.
    std::optional<std::string> actionTitle;
    /// The close button's label (soft lockdowns).
    std::optional<std::string> dismissTitle;
    /// Notes shown on the lockdown screen.
    std::optional<std::vector<Note>> notes;
};

/// Either lockedDown(type) or open.
class PALOMIR_API LockdownResult {
public:
    /// @{
    /// The two outcomes.
    static LockdownResult lockedDown(LockdownType type) { return LockdownResult(type); }
    static LockdownResult open() { return LockdownResult(std::nullopt); }

    /// @}

    /// Whether a lockdown is in force.
    bool isLockedDown() const { return _type.has_value(); }
    /// The opposite of isLockedDown().
    bool isOpen() const { return !_type.has_value(); }
    /// The kind of lockdown in force; nothing when open.
    std::optional<LockdownType> type() const { return _type; }

    /// Same outcome and type.
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

/// A service's health, from best to worst; states the backend names that this version does not know decode as unknown.
enum class ServiceState { ok, warning, error, disabled, unknown };

/// The wire string ("ok", "warning", ...).
PALOMIR_API std::string_view toString(ServiceState state);
/// Strict: an unknown string gives nothing. (Decoding from JSON is tolerant
/// and turns unknown strings into ServiceState::unknown.)
PALOMIR_API std::optional<ServiceState> serviceStateFromString(std::string_view text);

/// Severity order ok < warning < error < disabled < unknown.
/// @{
PALOMIR_API bool operator<(ServiceState a, ServiceState b);
PALOMIR_API bool operator<=(ServiceState a, ServiceState b);
PALOMIR_API bool operator>(ServiceState a, ServiceState b);
PALOMIR_API bool operator>=(ServiceState a, ServiceState b);

/// @}

/// The banner a service asks for while it is degraded.
struct ServiceMessage {
    /// The banner's heading.
    std::optional<std::string> title;
    /// The banner's text.
    std::optional<std::string> description;
    /// The close button's label.
    std::optional<std::string> dismiss;
    /// Opened by the banner's link.
    std::optional<Url> url;
    /// The link's label.
    std::optional<std::string> urlTitle;
    /// Background in light appearance.
    std::optional<Color> backgroundColorLight;
    /// Background in dark appearance.
    std::optional<Color> backgroundColorDark;

    /// Member by member.
    friend bool operator==(const ServiceMessage&, const ServiceMessage&) = default;
};

/// One backend service and its status.
struct Service {
    /// For people.
    std::string name;
    /// For service(identifier) and the notifications.
    std::string identifier;
    /// The service's page.
    std::optional<Url> url;
    /// Whether the service can be used at all.
    bool available = false;
    /// Its health.
    ServiceState state = ServiceState::unknown;
    /// Whether its message should be shown as a banner.
    bool triggersMessage = false;
    /// The banner to show.
    std::optional<ServiceMessage> message;
    /// An icon.
    std::optional<Url> image;

    /// Member by member.
    friend bool operator==(const Service&, const Service&) = default;
};

/// The backend's answer to a services fetch.
struct ServicesResponse {
    /// In the backend's order.
    std::vector<Service> services;
};

/// The backend's answer to a single service fetch.
struct ServiceResponse {
    /// The service asked for.
    Service service;
};

// ---------------------------------------------------------------------------
// Configuration

/// The backend's answer to a check-in: what the host should show and when to check in again.
struct PALOMIR_API Configuration {
    /// Identifies this configuration.
    std::string version;
    /// When to check in next; nothing leaves it to the host.
    std::optional<NextCheckin> nextCheckin;
    /// The screens' colours.
    Theme theme;
    /// What is new, for the notes screen.
    std::vector<Note> notes;
    /// Whether the app is blocked or asked to update.
    Lockdown lockdown;
    /// The backend's services, when it lists them.
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
    /// The name the backend stores it under.
    std::string filename;
    /// Its media type; "" when unknown.
    std::string contentType;
    /// The bytes, held in memory.
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
    /// Providers are shared with the feedback that asks them.
    virtual ~AttachmentProvider();
    /// The files to attach, read when a feedback that names this provider is submitted.
    virtual std::vector<Attachment> feedbackAttachments() = 0;
};

/// The announcement of one file before its bytes are uploaded.
struct DirectUpload {
    /// The file's name.
    std::string filename;
    /// The number of bytes.
    std::int64_t byteSize = 0;
    /// Base64 of the bytes' MD5 digest, for the storage to verify.
    std::string checksum;
    /// The media type.
    std::string contentType;
    /// Kept beside the record for the upload step; never written to JSON.
    std::optional<std::vector<std::uint8_t>> data;
};

/// Where the backend wants the bytes of an announced file.
struct DirectUploadResponse {
    /// Where and how to upload the bytes.
    struct DirectUpload {
        /// Where to PUT the bytes.
        std::string url;
        /// Headers to send exactly as given, and no others.
        std::map<std::string, std::string> headers;
    };

    /// The backend's number for the file.
    std::int64_t identifier = 0;
    /// The storage key.
    std::string key;
    /// The file's name as stored.
    std::string filename;
    /// Names the file in the feedback that attaches it.
    std::string signedID;
    /// The upload target.
    DirectUpload directUpload;
};

/// A feedback entry as submitted and as the backend returns it.
struct Feedback {
    /// A short summary.
    std::string title;
    /// The text, cut to 1000 characters.
    std::string message;
    /// Who sent it (an e-mail address or a name).
    std::string submittedBy;
    /// The signed identifiers of the uploaded attachments.
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
/// @{
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
/// @}

}  // namespace palomir
