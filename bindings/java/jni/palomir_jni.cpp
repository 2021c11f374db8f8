// The JNI layer of palomir-java: each native method of io.palomir.Native
// forwards to one C function (or reads one group of accessors). No
// behaviour lives here; the Java side turns handles into records.
//
// Texts cross as byte arrays of standard UTF-8, encoded and decoded on the
// Java side: JNI's own string functions speak modified UTF-8, which writes
// characters outside the Basic Multilingual Plane (emoji) as surrogate pairs
// the C library would take for invalid text.

#include <jni.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include <palomir/palomir.h>

namespace {

JavaVM* vm = nullptr;
PLQueue* delivery = nullptr;  // completions run here, then go to the caller's Executor
jmethodID pendingComplete = nullptr;
jclass palomirClass = nullptr;
jmethodID askToken = nullptr;
jclass bytesClass = nullptr;

// Native threads that call into Java are attached once and detached when they end.
struct Attachment {
    bool attached = false;
    ~Attachment() {
        if (attached) vm->DetachCurrentThread();
    }
};

JNIEnv* environment() {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) == JNI_OK) return env;
    thread_local Attachment attachment;
    if (vm->AttachCurrentThreadAsDaemon(reinterpret_cast<void**>(&env), nullptr) != JNI_OK) return nullptr;
    attachment.attached = true;
    return env;
}

// A Java exception thrown by a callback cannot travel through C; it is printed and dropped.
void drop(JNIEnv* env) {
    if (env->ExceptionCheck()) {
        env->ExceptionDescribe();
        env->ExceptionClear();
    }
}

// A Java byte[] of UTF-8 (null: no text) as a NUL-terminated C string.
class Text {
public:
    Text(JNIEnv* env, jbyteArray bytes) : present_(bytes != nullptr) {
        if (!bytes) return;
        text_.resize(static_cast<size_t>(env->GetArrayLength(bytes)));
        env->GetByteArrayRegion(bytes, 0, static_cast<jsize>(text_.size()), reinterpret_cast<jbyte*>(text_.data()));
    }
    const char* get() const { return present_ ? text_.c_str() : nullptr; }

private:
    bool present_;
    std::string text_;
};

// A C string as a Java byte[] of its UTF-8 (null for none).
jbyteArray utf8(JNIEnv* env, const char* text) {
    if (!text) return nullptr;
    const auto length = static_cast<jsize>(std::strlen(text));
    jbyteArray bytes = env->NewByteArray(length);
    if (bytes) env->SetByteArrayRegion(bytes, 0, length, reinterpret_cast<const jbyte*>(text));
    return bytes;
}
jlong handle(const void* pointer) { return static_cast<jlong>(reinterpret_cast<intptr_t>(pointer)); }
template <class T>
T* pointer(jlong value) {
    return reinterpret_cast<T*>(static_cast<intptr_t>(value));
}

jlong errorOf(bool ok, PLError* error) { return ok ? 0 : handle(error); }

// Completions: hand the Pending its owned handles, then drop the global reference.
void complete(void* context, jlong value, jlong error) {
    auto pending = static_cast<jobject>(context);
    if (JNIEnv* env = environment()) {
        env->CallVoidMethod(pending, pendingComplete, value, error);
        drop(env);
        env->DeleteGlobalRef(pending);
    }
}

void checkinDone(const PLConfiguration* configuration, const PLError* error, void* context) {
    complete(context, handle(pl_configuration_retain(configuration)), handle(pl_error_copy(error)));
}

void servicesDone(const PLServices* services, const PLError* error, void* context) {
    complete(context, handle(pl_services_retain(services)), handle(pl_error_copy(error)));
}

void feedbackDone(bool, const PLError* error, void* context) { complete(context, 0, handle(pl_error_copy(error))); }

// Starts a call holding `pending` globally; a refused call drops it again.
template <class Start>
jlong start(JNIEnv* env, jobject pending, Start call) {
    jobject global = env->NewGlobalRef(pending);
    PLError* error = nullptr;
    if (call(global, &error)) return 0;
    env->DeleteGlobalRef(global);
    return handle(error);
}

void provideToken(PLUserTokenReply* reply, void* context) {
    JNIEnv* env = environment();
    if (!env) {
        pl_user_token_reply(reply, nullptr);
        return;
    }
    env->CallStaticVoidMethod(palomirClass, askToken, static_cast<jobject>(context), handle(reply));
    drop(env);
}

void releaseProvider(void* context) {
    if (JNIEnv* env = environment()) env->DeleteGlobalRef(static_cast<jobject>(context));
}

jdoubleArray color(JNIEnv* env, bool ok, const PLColor& c) {
    if (!ok) return nullptr;
    const jdouble values[] = {c.red, c.green, c.blue, c.alpha};
    jdoubleArray array = env->NewDoubleArray(4);
    if (array) env->SetDoubleArrayRegion(array, 0, 4, values);
    return array;
}

const PLConfiguration* configuration(jlong value) { return pointer<const PLConfiguration>(value); }
const PLServices* services(jlong value) { return pointer<const PLServices>(value); }

}  // namespace

#define NATIVE(type, name) extern "C" JNIEXPORT type JNICALL Java_io_palomir_Native_##name

extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* loaded, void*) {
    vm = loaded;
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) != JNI_OK) return JNI_ERR;
    jclass pending = env->FindClass("io/palomir/Pending");
    jclass palomir = env->FindClass("io/palomir/Palomir");
    jclass bytes = env->FindClass("[B");
    if (!pending || !palomir || !bytes) return JNI_ERR;
    pendingComplete = env->GetMethodID(pending, "complete", "(JJ)V");
    askToken = env->GetStaticMethodID(palomir, "askToken", "(Lio/palomir/UserCredentials;J)V");
    palomirClass = static_cast<jclass>(env->NewGlobalRef(palomir));
    bytesClass = static_cast<jclass>(env->NewGlobalRef(bytes));
    delivery = pl_queue_create_serial("palomir.java");
    return pendingComplete && askToken && delivery ? JNI_VERSION_1_8 : JNI_ERR;
}

NATIVE(jint, errorCode)(JNIEnv*, jclass, jlong error) { return pl_error_code(pointer<PLError>(error)); }
NATIVE(jbyteArray, errorDescription)(JNIEnv* env, jclass, jlong error) {
    return utf8(env, pl_error_description(pointer<PLError>(error)));
}
NATIVE(void, errorRelease)(JNIEnv*, jclass, jlong error) { pl_error_release(pointer<PLError>(error)); }

NATIVE(jlong, setCachesDirectory)(JNIEnv* env, jclass, jbyteArray path) {
    PLError* error = nullptr;
    return errorOf(pl_set_caches_directory(Text(env, path).get(), &error), error);
}

NATIVE(jlong, setHostInfo)(JNIEnv* env, jclass, jbyteArray identifier, jbyteArray version, jbyteArray build, jbyteArray name) {
    PLError* error = nullptr;
    Text a(env, identifier), b(env, version), c(env, build), d(env, name);
    return errorOf(pl_set_host_info(a.get(), b.get(), c.get(), d.get(), &error), error);
}

NATIVE(jlong, setBackend)(JNIEnv* env, jclass, jbyteArray baseUrl, jbyteArray caFile, jbyteArray resourceDir) {
    PLError* error = nullptr;
    Text a(env, baseUrl), b(env, caFile), c(env, resourceDir);
    return errorOf(pl_set_backend(a.get(), b.get(), c.get(), &error), error);
}

NATIVE(jlong, setAppCredentials)(JNIEnv* env, jclass, jbyteArray token, jbyteArray secret) {
    PLError* error = nullptr;
    Text a(env, token), b(env, secret);
    return errorOf(pl_set_app_credentials(a.get(), b.get(), &error), error);
}

NATIVE(void, clearAppCredentials)(JNIEnv*, jclass) { pl_clear_app_credentials(); }

NATIVE(void, setUserCredentials)(JNIEnv* env, jclass, jobject provider) {
    if (!provider) {
        pl_set_user_credentials(nullptr, nullptr, nullptr);
        return;
    }
    pl_set_user_credentials(provideToken, env->NewGlobalRef(provider), releaseProvider);
}

NATIVE(void, replyToken)(JNIEnv* env, jclass, jlong reply, jbyteArray token) {
    pl_user_token_reply(pointer<PLUserTokenReply>(reply), Text(env, token).get());
}

NATIVE(jobjectArray, logFiles)(JNIEnv* env, jclass) {
    PLStringList* list = pl_copy_log_files();
    const auto count = static_cast<jsize>(pl_string_list_count(list));
    jobjectArray paths = env->NewObjectArray(count, bytesClass, nullptr);
    for (jsize i = 0; paths && i < count; ++i) {
        jbyteArray path = utf8(env, pl_string_list_at(list, static_cast<size_t>(i)));
        env->SetObjectArrayElement(paths, i, path);
        env->DeleteLocalRef(path);
    }
    pl_string_list_release(list);
    return paths;
}

NATIVE(jlong, checkin)(JNIEnv* env, jclass, jobject pending) {
    return start(env, pending, [](jobject context, PLError** error) {
        return pl_checkin(delivery, checkinDone, context, error);
    });
}

NATIVE(jlong, services)(JNIEnv* env, jclass, jboolean system, jbyteArray identifier, jobject pending) {
    Text id(env, identifier);
    return start(env, pending, [&](jobject context, PLError** error) {
        if (!identifier) return pl_services(system, delivery, servicesDone, context, error);
        return pl_service(system, id.get(), delivery, servicesDone, context, error);
    });
}

NATIVE(jlong, feedback)(JNIEnv* env, jclass, jbyteArray title, jbyteArray message, jbyteArray submittedBy,
                        jobjectArray filenames, jobjectArray contentTypes, jobjectArray data, jobject pending) {
    const jsize count = env->GetArrayLength(filenames);
    std::vector<PLAttachment*> attachments;
    for (jsize i = 0; i < count; ++i) {
        auto name = static_cast<jbyteArray>(env->GetObjectArrayElement(filenames, i));
        auto type = static_cast<jbyteArray>(env->GetObjectArrayElement(contentTypes, i));
        auto bytes = static_cast<jbyteArray>(env->GetObjectArrayElement(data, i));
        std::vector<jbyte> copy(static_cast<size_t>(env->GetArrayLength(bytes)));
        env->GetByteArrayRegion(bytes, 0, static_cast<jsize>(copy.size()), copy.data());
        attachments.push_back(pl_attachment_create(Text(env, name).get(), Text(env, type).get(), copy.data(), copy.size()));
        env->DeleteLocalRef(name);
        env->DeleteLocalRef(type);
        env->DeleteLocalRef(bytes);
    }
    Text a(env, title), b(env, message), c(env, submittedBy);
    const jlong refused = start(env, pending, [&](jobject context, PLError** error) {
        return pl_feedback(a.get(), b.get(), c.get(), attachments.data(), attachments.size(), delivery, feedbackDone,
                           context, error);
    });
    for (PLAttachment* attachment : attachments) pl_attachment_release(attachment);
    return refused;
}

// ---- Configuration handles

NATIVE(void, configurationRelease)(JNIEnv*, jclass, jlong value) {
    pl_configuration_release(pointer<PLConfiguration>(value));
}
NATIVE(jbyteArray, configurationVersion)(JNIEnv* env, jclass, jlong value) {
    return utf8(env, pl_configuration_version(configuration(value)));
}
NATIVE(jlong, configurationNextCheckin)(JNIEnv*, jclass, jlong value) {
    bool hasDate = false;
    int64_t at = 0;
    if (!pl_configuration_next_checkin(configuration(value), &hasDate, &at)) return std::numeric_limits<jlong>::min();
    return hasDate ? at : std::numeric_limits<jlong>::min() + 1;
}
NATIVE(jintArray, configurationNextCheckinEvents)(JNIEnv* env, jclass, jlong value) {
    std::vector<jint> events;
    PLCheckinEvent event;
    for (size_t i = 0; pl_configuration_next_checkin_event_at(configuration(value), i, &event); ++i) events.push_back(event);
    jintArray array = env->NewIntArray(static_cast<jsize>(events.size()));
    if (array) env->SetIntArrayRegion(array, 0, static_cast<jsize>(events.size()), events.data());
    return array;
}
NATIVE(jdoubleArray, configurationThemeColor)(JNIEnv* env, jclass, jlong value, jint which) {
    PLColor c{};
    return color(env, pl_configuration_theme_color(configuration(value), static_cast<PLThemeColor>(which), &c), c);
}
NATIVE(jdoubleArray, configurationGradient)(JNIEnv* env, jclass, jlong value) {
    std::vector<jdouble> values(4);
    if (!pl_configuration_theme_gradient_points(configuration(value), &values[0], &values[1], &values[2], &values[3]))
        return nullptr;
    PLColor c{};
    for (size_t i = 0; pl_configuration_theme_gradient_color_at(configuration(value), i, &c); ++i)
        values.insert(values.end(), {c.red, c.green, c.blue, c.alpha});
    jdoubleArray array = env->NewDoubleArray(static_cast<jsize>(values.size()));
    if (array) env->SetDoubleArrayRegion(array, 0, static_cast<jsize>(values.size()), values.data());
    return array;
}
NATIVE(jint, configurationNoteCount)(JNIEnv*, jclass, jlong value) {
    return static_cast<jint>(pl_configuration_note_count(configuration(value)));
}
NATIVE(jbyteArray, configurationNote)(JNIEnv* env, jclass, jlong value, jint index, jint field) {
    const PLConfiguration* c = configuration(value);
    const auto i = static_cast<size_t>(index);
    switch (field) {
        case PL_NOTE_IDENTIFIER: return utf8(env, pl_configuration_note_identifier(c, i));
        case PL_NOTE_TITLE: return utf8(env, pl_configuration_note_title(c, i));
        case PL_NOTE_SUBTITLE: return utf8(env, pl_configuration_note_subtitle(c, i));
        case PL_NOTE_CONTENT: return utf8(env, pl_configuration_note_content(c, i));
        default: return utf8(env, pl_configuration_note_image(c, i));
    }
}
NATIVE(jint, configurationLockdownResult)(JNIEnv*, jclass, jlong value) {
    return pl_configuration_lockdown(configuration(value));
}
NATIVE(jboolean, configurationLockdownActive)(JNIEnv*, jclass, jlong value) {
    return pl_configuration_lockdown_active(configuration(value));
}
NATIVE(jint, configurationLockdownType)(JNIEnv*, jclass, jlong value) {
    PLLockdownType type;
    return pl_configuration_lockdown_type(configuration(value), &type) ? type : -1;
}
// Fields in the order of the Lockdown record's texts.
NATIVE(jbyteArray, configurationLockdownText)(JNIEnv* env, jclass, jlong value, jint field) {
    const PLConfiguration* c = configuration(value);
    switch (field) {
        case 0: return utf8(env, pl_configuration_lockdown_latest_version(c));
        case 1: return utf8(env, pl_configuration_lockdown_title(c));
        case 2: return utf8(env, pl_configuration_lockdown_title_image(c));
        case 3: return utf8(env, pl_configuration_lockdown_subtitle(c));
        case 4: return utf8(env, pl_configuration_lockdown_action_url(c));
        case 5: return utf8(env, pl_configuration_lockdown_action_title(c));
        default: return utf8(env, pl_configuration_lockdown_dismiss_title(c));
    }
}
NATIVE(jint, configurationLockdownNoteCount)(JNIEnv*, jclass, jlong value) {
    return static_cast<jint>(pl_configuration_lockdown_note_count(configuration(value)));
}
NATIVE(jbyteArray, configurationLockdownNote)(JNIEnv* env, jclass, jlong value, jint index, jint field) {
    return utf8(env, pl_configuration_lockdown_note(configuration(value), static_cast<size_t>(index),
                                                      static_cast<PLNoteField>(field)));
}
NATIVE(jlong, configurationCopyServices)(JNIEnv*, jclass, jlong value) {
    return handle(pl_configuration_copy_services(configuration(value)));
}

// ---- Service lists

NATIVE(void, servicesRelease)(JNIEnv*, jclass, jlong value) { pl_services_release(pointer<PLServices>(value)); }
NATIVE(jdouble, servicesMaxAge)(JNIEnv*, jclass, jlong value) {
    double seconds = 0;
    return pl_services_max_age(services(value), &seconds) ? seconds : std::nan("");
}
NATIVE(jint, servicesCount)(JNIEnv*, jclass, jlong value) { return static_cast<jint>(pl_services_count(services(value))); }
NATIVE(jbyteArray, servicesText)(JNIEnv* env, jclass, jlong value, jint index, jint field) {
    return utf8(env, pl_services_text(services(value), static_cast<size_t>(index), static_cast<PLServiceField>(field)));
}
NATIVE(jint, servicesState)(JNIEnv*, jclass, jlong value, jint index) {
    PLServiceState state = PL_SERVICE_STATE_UNKNOWN;
    pl_services_state(services(value), static_cast<size_t>(index), &state);
    return state;
}
NATIVE(jint, servicesFlags)(JNIEnv*, jclass, jlong value, jint index) {
    const auto i = static_cast<size_t>(index);
    return (pl_services_available(services(value), i) ? 1 : 0) | (pl_services_triggers_message(services(value), i) ? 2 : 0) |
           (pl_services_has_message(services(value), i) ? 4 : 0);
}
