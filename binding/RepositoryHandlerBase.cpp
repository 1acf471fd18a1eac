// The native methods of quorra.repohandler.RepositoryHandlerBase.
//
// Each native converts its Java arguments, calls one function of the C surface inside a
// catch-all, and converts the result back. No C++ exception reaches the JVM: a failing call is
// logged and answered with the method's failure value (null, -1 or 0). Every Java string's
// characters and every C text are given back on every path by the RAII holders below.
// JNI_OnLoad looks the result class up once; nothing else is kept between calls.

#include <jni.h>

#include <utime.h>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>

#include "KSLogger.h"
#include "quorra_repohandler_RepositoryHandlerBase.h"
#include "repohandler.h"

namespace {

// The modified UTF-8 characters of one Java string, released when the holder goes out of scope.
// A conversion that fails for lack of memory leaves an OutOfMemoryError pending and makes
// failed() true. A null Java string is refused by get(), inside the native's catch-all, so that
// no C function ever sees a null text from Java.
class JStringUtf {
  public:
    JStringUtf(JNIEnv* env, jstring string)
        : env_(env),
          string_(string),
          chars_(string ? env->GetStringUTFChars(string, nullptr) : nullptr) {}
    ~JStringUtf() {
        // Releasing is allowed with a Java exception pending, so this is safe on every path.
        if (chars_) env_->ReleaseStringUTFChars(string_, chars_);
    }
    JStringUtf(const JStringUtf&) = delete;
    JStringUtf& operator=(const JStringUtf&) = delete;

    const char* get() const {
        if (!chars_) throw std::invalid_argument("a Java string argument is null");
        return chars_;
    }
    // The text for log lines: never null.
    const char* text() const { return chars_ ? chars_ : "(null)"; }
    bool failed() const { return string_ && !chars_; }

  private:
    JNIEnv* env_;
    jstring string_;
    const char* chars_;
};

// Texts of the C surface: new[] arrays given back with release(); normalize_file_name's result
// comes from malloc(); lists are given back whole with releaseList_().
struct ReleaseText {
    void operator()(char* text) const { release(text); }
};
struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using CText = std::unique_ptr<char, ReleaseText>;
using MallocText = std::unique_ptr<char, FreeText>;

class CTextList {
  public:
    CTextList(char** list, long count) : list_(list), count_(list ? count : 0) {}
    ~CTextList() {
        if (list_) releaseList_(list_, count_);
    }
    CTextList(const CTextList&) = delete;
    CTextList& operator=(const CTextList&) = delete;

    char** get() const { return list_; }
    long count() const { return count_; }

  private:
    char** list_;
    long count_;
};

DBConnector* toConnector(jlong db) {
    return reinterpret_cast<DBConnector*>(static_cast<std::intptr_t>(db));
}

bool toBool(jboolean flag) {
    return flag != JNI_FALSE;
}

jstring toJavaString(JNIEnv* env, const char* text) {
    return text ? env->NewStringUTF(text) : nullptr;
}

const char kResultClass[] = "quorra/repohandler/ResourceLocationResult";
const char kResultConstructor[] = "(Ljava/lang/String;II)V";

// The result class and its constructor, looked up once in JNI_OnLoad (with the class loader of
// the class that loads the library) because FindClass on every call would cost more than the rest
// of a look-up's binding. Written only by JNI_OnLoad and JNI_OnUnload, which the JVM runs before
// any native of the library can be called and after the last one, so reads need no lock. Null
// when the class or its constructor was missing at load time: every call then looks again, so
// that each failing call logs why it returned null.
struct ResultClassCache {
    jclass resultClass = nullptr;  // global reference
    jmethodID constructor = nullptr;
};
ResultClassCache resultCache;

// A new ResourceLocationResult(path, first, second), or null when the class or its constructor
// cannot be found (logged) or the JVM runs out of memory (OutOfMemoryError left pending). A
// missing class must not turn into a Java exception, so that error is cleared.
jobject createResourceLocationResult(JNIEnv* env, const char* path, int first, int second) {
    jclass resultClass = resultCache.resultClass;
    jmethodID constructor = resultCache.constructor;
    jclass lookedUp = nullptr;
    if (!resultClass) {
        lookedUp = env->FindClass(kResultClass);
        if (!lookedUp) {
            env->ExceptionClear();
            rh_logger.errorLog("Failed to get %s for ResourceLocationResult class ", "class");
            return nullptr;
        }
        constructor = env->GetMethodID(lookedUp, "<init>", kResultConstructor);
        if (!constructor) {
            env->ExceptionClear();
            env->DeleteLocalRef(lookedUp);
            rh_logger.errorLog("Failed to get %s for ResourceLocationResult class ", "constructor");
            return nullptr;
        }
        resultClass = lookedUp;
    }
    jobject result = nullptr;
    jstring javaPath = toJavaString(env, path);
    if (!path || javaPath) {
        result = env->NewObject(resultClass, constructor, javaPath, static_cast<jint>(first),
                                static_cast<jint>(second));
    }
    if (javaPath) env->DeleteLocalRef(javaPath);
    if (lookedUp) env->DeleteLocalRef(lookedUp);
    return result;
}

// A String[] with one element per C text; null when the list is null or on lack of memory.
jobjectArray toJavaStringArray(JNIEnv* env, const CTextList& list) {
    if (!list.get()) return nullptr;
    jclass stringClass = env->FindClass("java/lang/String");
    if (!stringClass) return nullptr;
    jstring empty = env->NewStringUTF("");
    jobjectArray array =
        empty ? env->NewObjectArray(static_cast<jsize>(list.count()), stringClass, empty) : nullptr;
    for (long i = 0; array && i < list.count(); ++i) {
        jstring element = toJavaString(env, list.get()[i]);
        if (env->ExceptionCheck()) {
            env->DeleteLocalRef(array);
            array = nullptr;
            break;
        }
        env->SetObjectArrayElement(array, static_cast<jsize>(i), element);
        // One local reference per element would overflow the frame's capacity on long lists.
        if (element) env->DeleteLocalRef(element);
    }
    if (empty) env->DeleteLocalRef(empty);
    env->DeleteLocalRef(stringClass);
    return array;
}

jobject locationResult(JNIEnv* env, char* path, int status, int second) {
    CText owned(path);
    return createResourceLocationResult(env, owned.get(), status, second);
}

jstring textResult(JNIEnv* env, char* text) {
    CText owned(text);
    return toJavaString(env, owned.get());
}

// Every conversion of the native's Java strings succeeded (a failed one left an
// OutOfMemoryError pending for the caller).
template <typename... Strings>
bool converted(const Strings&... strings) {
    return (!strings.failed() && ...);
}

// The catch-all around one C call: `failure` when a Java string could not be converted, or when
// the call throws, which is logged as `message` with `texts` in place of its %s.
template <typename Result, typename Call, typename... Texts>
Result guarded(Result failure, bool ready, Call&& call, const char* message, Texts... texts) {
    if (!ready) return failure;
    try {
        return call();
    } catch (...) {
        rh_logger.errorLog(message, texts...);
        return failure;
    }
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void*) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) != JNI_OK) return JNI_ERR;
    jclass found = env->FindClass(kResultClass);
    if (!found) {
        env->ExceptionClear();
        return JNI_VERSION_1_8;
    }
    jmethodID constructor = env->GetMethodID(found, "<init>", kResultConstructor);
    if (constructor) {
        resultCache.resultClass = static_cast<jclass>(env->NewGlobalRef(found));
        resultCache.constructor = resultCache.resultClass ? constructor : nullptr;
    }
    env->ExceptionClear();
    env->DeleteLocalRef(found);
    return JNI_VERSION_1_8;
}

JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void*) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) != JNI_OK) return;
    if (resultCache.resultClass) env->DeleteGlobalRef(resultCache.resultClass);
    resultCache = ResultClassCache();
}

JNIEXPORT jobject JNICALL Java_quorra_repohandler_RepositoryHandlerBase_createDirectoryNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jboolean flag1, jboolean flag2,
    jboolean flag3, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jobject>(
        nullptr, converted(repo, res),
        [&] {
            int status = 0, second = 0;
            char* path = createDirectory_(repo.get(), res.get(), &status, &second, toBool(flag1),
                                          toBool(flag2), toBool(flag3), toConnector(db));
            return locationResult(env, path, status, second);
        },
        "An exception was caught in createDirectory_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jobject JNICALL Java_quorra_repohandler_RepositoryHandlerBase_createLocationNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jboolean noDirty, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jobject>(
        nullptr, converted(repo, res),
        [&] {
            int status = 0, existed = 0;
            char* path = createLocation_(repo.get(), res.get(), &status, &existed, toBool(noDirty),
                                         toConnector(db));
            return locationResult(env, path, status, existed);
        },
        "An exception was caught in createLocation_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jobject JNICALL Java_quorra_repohandler_RepositoryHandlerBase_getLocationNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jboolean touch, jboolean lock,
    jboolean useCallback, jboolean onlyIfDirty, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jobject>(
        nullptr, converted(repo, res),
        [&] {
            int status = 0;
            char* path = getLocation_(repo.get(), res.get(), &status, toBool(touch), toBool(lock),
                                      toBool(useCallback), toBool(onlyIfDirty), toConnector(db));
            return locationResult(env, path, status, 1);
        },
        "An exception was caught in getLocation_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jobject JNICALL Java_quorra_repohandler_RepositoryHandlerBase_getLocationOnMountNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jstring mount, jboolean lock,
    jboolean touch, jlong db) {
    JStringUtf repo(env, repository), res(env, resource), mnt(env, mount);
    return guarded<jobject>(
        nullptr, converted(repo, res, mnt),
        [&] {
            int status = 0;
            char* path = getLocationOnMount_(repo.get(), res.get(), mnt.get(), &status,
                                             toBool(lock), toConnector(db), toBool(touch));
            return locationResult(env, path, status, 1);
        },
        "An exception was caught in getLocationOnMount_(%s, %s, %s)", repo.text(), res.text(),
        mnt.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_getRepositoryStatusNative(
    JNIEnv* env, jobject, jstring repository, jlong db) {
    JStringUtf repo(env, repository);
    return guarded<jint>(
        -1, converted(repo), [&] { return getRepositoryStatus_(repo.get(), toConnector(db)); },
        "An exception was caught in checkRepositoryStatus_(%s)", repo.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_checkResourceStatusNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jint>(
        -1, converted(repo, res),
        [&] { return checkResourceStatus_(repo.get(), res.get(), toConnector(db)); },
        "An exception was caught in checkResourceStatus_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_removeResourceNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jboolean lock, jboolean useCallback,
    jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jint>(
        -1, converted(repo, res),
        [&] {
            return removeResource_(repo.get(), res.get(), toBool(lock), toBool(useCallback),
                                   toConnector(db));
        },
        "An exception was caught in removeResource_(%s, %s)", repo.text(), res.text());
}

// Operators search the logs for the text of removeResource_, so the mount variant keeps it.
JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_removeResourceOnMountNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jstring mount, jboolean lock,
    jboolean useCallback, jlong db) {
    JStringUtf repo(env, repository), res(env, resource), mnt(env, mount);
    return guarded<jint>(
        -1, converted(repo, res, mnt),
        [&] {
            return removeResourceOnMount_(repo.get(), res.get(), mnt.get(), toBool(lock),
                                          toBool(useCallback), toConnector(db));
        },
        "An exception was caught in removeResource_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jobjectArray JNICALL Java_quorra_repohandler_RepositoryHandlerBase_listFilesNative(
    JNIEnv* env, jobject, jstring repository, jboolean flag, jlong db) {
    JStringUtf repo(env, repository);
    return guarded<jobjectArray>(
        nullptr, converted(repo),
        [&] {
            long count = 0;
            char** list = listFiles_(repo.get(), &count, toBool(flag), toConnector(db));
            return toJavaStringArray(env, CTextList(list, count));
        },
        "An exception was caught in listFiles_(%s)", repo.text());
}

JNIEXPORT jobjectArray JNICALL Java_quorra_repohandler_RepositoryHandlerBase_listDirsNative(
    JNIEnv* env, jobject, jstring repository, jboolean flag, jlong db) {
    JStringUtf repo(env, repository);
    return guarded<jobjectArray>(
        nullptr, converted(repo),
        [&] {
            long count = 0;
            char** list = listDirs_(repo.get(), &count, toBool(flag), toConnector(db));
            return toJavaStringArray(env, CTextList(list, count));
        },
        "An exception was caught in listDirs_(%s)", repo.text());
}

JNIEXPORT jlongArray JNICALL Java_quorra_repohandler_RepositoryHandlerBase_getTimePropertiesNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jlongArray>(
        nullptr, converted(repo, res),
        [&]() -> jlongArray {
            struct utimbuf times = {};
            if (!getTimeProperties_(repo.get(), res.get(), &times, toConnector(db))) return nullptr;
            const jlong values[2] = {static_cast<jlong>(times.actime),
                                     static_cast<jlong>(times.modtime)};
            jlongArray result = env->NewLongArray(2);
            if (result) env->SetLongArrayRegion(result, 0, 2, values);
            return result;
        },
        "An exception was caught in getTimeProperties_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT void JNICALL Java_quorra_repohandler_RepositoryHandlerBase_setTimePropertiesNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlongArray times, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    guarded<bool>(
        false, converted(repo, res),
        [&] {
            if (!times || env->GetArrayLength(times) < 2)
                throw std::invalid_argument("times needs an access and a modification time");
            jlong values[2] = {};
            env->GetLongArrayRegion(times, 0, 2, values);
            struct utimbuf utimes = {static_cast<time_t>(values[0]),
                                     static_cast<time_t>(values[1])};
            return setTimeProperties_(repo.get(), res.get(), &utimes, toConnector(db));
        },
        "An exception was caught in setTimeProperties_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_lockResourceNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jint>(
        0, converted(repo, res),
        [&] { return lockResource_(repo.get(), res.get(), toConnector(db)); },
        "An exception was caught in lockResource_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_unlockResourceNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jint>(
        0, converted(repo, res),
        [&] { return unlockResource_(repo.get(), res.get(), toConnector(db)); },
        "An exception was caught in unlockResource_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jint JNICALL Java_quorra_repohandler_RepositoryHandlerBase_isDirtyNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jint>(
        0, converted(repo, res), [&] { return isDirty_(repo.get(), res.get(), toConnector(db)); },
        "An exception was caught in isDirty_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT void JNICALL Java_quorra_repohandler_RepositoryHandlerBase_setDirtyNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jboolean dirty, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    guarded<bool>(
        false, converted(repo, res),
        [&] {
            setDirty_(repo.get(), res.get(), toBool(dirty), toConnector(db));
            return true;
        },
        "An exception was caught in setDirty_(%s, %s, %s)", repo.text(), res.text(),
        toBool(dirty) ? "true" : "false");
}

JNIEXPORT jstring JNICALL Java_quorra_repohandler_RepositoryHandlerBase_getMountPathNative(
    JNIEnv* env, jobject, jstring repository, jstring directory, jlong db) {
    JStringUtf repo(env, repository), dir(env, directory);
    return guarded<jstring>(
        nullptr, converted(repo, dir),
        [&] {
            return textResult(env,
                              getMountPathForDirectory_(repo.get(), dir.get(), toConnector(db)));
        },
        "An exception was caught in getMountPathForDirectory_(%s, %s)", repo.text(), dir.text());
}

JNIEXPORT jstring JNICALL Java_quorra_repohandler_RepositoryHandlerBase_unAgeNative(
    JNIEnv* env, jobject, jstring repository, jstring resource, jlong db) {
    JStringUtf repo(env, repository), res(env, resource);
    return guarded<jstring>(
        nullptr, converted(repo, res),
        [&] { return textResult(env, unAge_(repo.get(), res.get(), toConnector(db))); },
        "An exception was caught in unAge_(%s, %s)", repo.text(), res.text());
}

JNIEXPORT jstring JNICALL Java_quorra_repohandler_RepositoryHandlerBase_normalizeFileNameNative(
    JNIEnv* env, jobject, jstring path) {
    JStringUtf text(env, path);
    return guarded<jstring>(
        nullptr, converted(text),
        [&] {
            MallocText normalized(normalize_file_name(text.get()));
            return toJavaString(env, normalized.get());
        },
        "An exception was caught in normalize_file_name(%s)", text.text());
}

}  // extern "C"
