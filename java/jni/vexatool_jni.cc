// The native half of the org.vexatool classes: each method of
// org.vexatool.Natives calls one of the ten exported ipc_ functions, and the
// endpoints' callbacks reach Java through EventDispatcher.dispatch.
//
// Conventions
// - Strings cross as UTF-8 byte arrays (never the VM's modified UTF-8); a
//   null array is a null pointer.
// - A handle is a NativeEndpoint*: the library's handle plus a global
//   reference to the endpoint's dispatcher. The Java side makes sure that no
//   call uses a handle after its release.
// - A callback thread is attached to the VM once, as a daemon, and detached
//   when it ends; no exception is left pending when a callback returns.
//
// Built against OpenJDK's jni.h and against Android's; the two differ only
// in the type of AttachCurrentThreadAsDaemon's first parameter.
#include <jni.h>
#include <pthread.h>

#include <cstring>
#include <string>
#include <vector>

#include "vexatool.h"

namespace {

JavaVM* g_vm = nullptr;
jclass g_dispatcherClass = nullptr;  // global reference, kept for g_dispatch
jmethodID g_dispatch = nullptr;      // void dispatch(int, int, byte[], int, int, byte[])
pthread_key_t g_attachedThread;      // set on threads this file attached

struct NativeEndpoint {
    void* handle = nullptr;        // the library's; written once, before Java sees the endpoint
    jobject dispatcher = nullptr;  // global reference, or null for a client without a listener
    const char* threadName = "";
};

// The endpoint whose callback runs on this thread, if any.
thread_local const NativeEndpoint* t_insideListenerOf = nullptr;

void detach_at_thread_exit(void* vm) {
    static_cast<JavaVM*>(vm)->DetachCurrentThread();
}

// OpenJDK declares the out-parameter void**, Android JNIEnv**.
template <typename EnvOut>
jint attach_as_daemon(JavaVM* vm, JNIEnv** env, JavaVMAttachArgs* args,
                      jint (JavaVM::*attach)(EnvOut, void*)) {
    return (vm->*attach)(reinterpret_cast<EnvOut>(env), args);
}

// The calling thread's JNIEnv; a thread the VM does not know is attached as a
// daemon, so that an endpoint left open never keeps the VM from exiting.
JNIEnv* attached_env(const char* threadName) {
    JNIEnv* env = nullptr;
    jint state = g_vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6);
    if (state == JNI_OK) {
        return env;
    }
    if (state != JNI_EDETACHED) {
        return nullptr;
    }
    JavaVMAttachArgs args{};
    args.version = JNI_VERSION_1_6;
    args.name = const_cast<char*>(threadName);
    args.group = nullptr;
    if (attach_as_daemon(g_vm, &env, &args, &JavaVM::AttachCurrentThreadAsDaemon) != JNI_OK) {
        return nullptr;
    }
    pthread_setspecific(g_attachedThread, g_vm);
    return env;
}

// Whatever went wrong inside the VM is reported on standard error and cleared.
void clear_pending_exception(JNIEnv* env) {
    if (env->ExceptionCheck()) {
        env->ExceptionDescribe();
        env->ExceptionClear();
    }
}

jbyteArray new_byte_array(JNIEnv* env, const char* bytes, size_t length) {
    jbyteArray array = env->NewByteArray(static_cast<jsize>(length));
    if (array != nullptr && length > 0) {
        env->SetByteArrayRegion(array, 0, static_cast<jsize>(length),
                                reinterpret_cast<const jbyte*>(bytes));
    }
    return array;
}

// Server and client callback alike. Runs on the endpoint's processing thread.
int deliver_event(void* user, int32_t testItem, int32_t eventId, const char* dev, int32_t sec,
                  int32_t usec, const char* data, int32_t dataLen) {
    const auto* endpoint = static_cast<const NativeEndpoint*>(user);
    JNIEnv* env = attached_env(endpoint->threadName);
    if (env == nullptr) {
        return 0;  // no VM to deliver to: the event is lost
    }
    // This thread never returns to Java, so its local references are freed here.
    if (env->PushLocalFrame(2) != JNI_OK) {
        clear_pending_exception(env);
        return 0;
    }
    jbyteArray devBytes = new_byte_array(env, dev, dev != nullptr ? std::strlen(dev) : 0);
    // No JNI call may follow a failed one while its exception is pending.
    jbyteArray body = devBytes == nullptr
                          ? nullptr
                          : new_byte_array(env, data, data != nullptr && dataLen > 0 ? dataLen : 0);
    if (devBytes != nullptr && body != nullptr) {
        const NativeEndpoint* outer = t_insideListenerOf;
        t_insideListenerOf = endpoint;
        env->CallVoidMethod(endpoint->dispatcher, g_dispatch, testItem, eventId, devBytes, sec,
                            usec, body);
        t_insideListenerOf = outer;
    }
    clear_pending_exception(env);
    env->PopLocalFrame(nullptr);
    return 0;
}

// A Java byte[] as a C string: null stays null.
class CString {
  public:
    CString(JNIEnv* env, jbyteArray bytes) : m_null(bytes == nullptr) {
        if (!m_null) {
            m_text.resize(static_cast<size_t>(env->GetArrayLength(bytes)));
            env->GetByteArrayRegion(bytes, 0, static_cast<jsize>(m_text.size()),
                                    reinterpret_cast<jbyte*>(&m_text[0]));
        }
    }
    const char* get() const { return m_null ? nullptr : m_text.c_str(); }

  private:
    bool m_null;
    std::string m_text;
};

std::vector<char> copy_body(JNIEnv* env, jbyteArray data) {
    std::vector<char> body(data != nullptr ? static_cast<size_t>(env->GetArrayLength(data)) : 0);
    if (!body.empty()) {
        env->GetByteArrayRegion(data, 0, static_cast<jsize>(body.size()),
                                reinterpret_cast<jbyte*>(body.data()));
    }
    return body;
}

NativeEndpoint* new_endpoint(JNIEnv* env, jobject dispatcher, const char* threadName) {
    auto* endpoint = new NativeEndpoint;
    endpoint->threadName = threadName;
    if (dispatcher != nullptr) {
        endpoint->dispatcher = env->NewGlobalRef(dispatcher);
    }
    return endpoint;
}

void delete_endpoint(JNIEnv* env, NativeEndpoint* endpoint) {
    if (endpoint->dispatcher != nullptr) {
        env->DeleteGlobalRef(endpoint->dispatcher);
    }
    delete endpoint;
}

// The endpoint behind a Java handle; Java never passes 0 here. Java can keep
// the pointer only as a long.
NativeEndpoint* from_handle(jlong handle) {
    return reinterpret_cast<NativeEndpoint*>(  // NOLINT(performance-no-int-to-ptr)
        static_cast<intptr_t>(handle));
}

jlong to_handle(NativeEndpoint* endpoint) {
    return static_cast<jlong>(reinterpret_cast<intptr_t>(endpoint));
}

}  // namespace

extern "C" {

JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM* vm, void* /*reserved*/) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_6) != JNI_OK) {
        return JNI_ERR;
    }
    jclass dispatcher = env->FindClass("org/vexatool/EventDispatcher");
    if (dispatcher == nullptr) {
        return JNI_ERR;  // NoClassDefFoundError is pending for System.loadLibrary
    }
    g_dispatch = env->GetMethodID(dispatcher, "dispatch", "(II[BII[B)V");
    if (g_dispatch == nullptr ||
        pthread_key_create(&g_attachedThread, detach_at_thread_exit) != 0) {
        return JNI_ERR;
    }
    g_dispatcherClass = static_cast<jclass>(env->NewGlobalRef(dispatcher));
    g_vm = vm;
    return JNI_VERSION_1_6;
}

JNIEXPORT jlong JNICALL Java_org_vexatool_Natives_serverStart(JNIEnv* env, jclass /*natives*/,
                                                              jbyteArray address,
                                                              jobject dispatcher) {
    const CString servPath(env, address);
    NativeEndpoint* endpoint = new_endpoint(env, dispatcher, "vexatool-server");
    endpoint->handle = ipc_init_server(servPath.get(), deliver_event, endpoint);
    if (endpoint->handle == nullptr) {
        delete_endpoint(env, endpoint);
        return 0;
    }
    return to_handle(endpoint);
}

JNIEXPORT jboolean JNICALL Java_org_vexatool_Natives_serverRunTest(JNIEnv* env, jclass /*natives*/,
                                                                   jlong server, jbyteArray test,
                                                                   jbyteArray dValue,
                                                                   jbyteArray extraArgs) {
    const CString path(env, test);
    const CString dev(env, dValue);
    const CString extra(env, extraArgs);
    return ipc_run_test(from_handle(server)->handle, path.get(), dev.get(), extra.get())
               ? JNI_TRUE
               : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_org_vexatool_Natives_serverSendCommand(JNIEnv* env, jclass /*natives*/,
                                                                   jlong server, jbyteArray dev,
                                                                   jint testItem, jint eventId,
                                                                   jbyteArray data) {
    const CString device(env, dev);
    const std::vector<char> body = copy_body(env, data);
    ipc_send_command(from_handle(server)->handle, device.get(), testItem, eventId, body.data(),
                     static_cast<int32_t>(body.size()));
}

JNIEXPORT void JNICALL Java_org_vexatool_Natives_serverKillClient(JNIEnv* /*env*/,
                                                                  jclass /*natives*/,
                                                                  jlong server) {
    ipc_kill_client(from_handle(server)->handle);
}

JNIEXPORT void JNICALL Java_org_vexatool_Natives_serverSetSuFilePath(JNIEnv* env,
                                                                     jclass /*natives*/,
                                                                     jlong server, jbyteArray su,
                                                                     jbyteArray preCommand) {
    const CString suPath(env, su);
    const CString preCmd(env, preCommand);
    ipc_set_su_file_path(from_handle(server)->handle, suPath.get(), preCmd.get());
}

JNIEXPORT void JNICALL Java_org_vexatool_Natives_serverRelease(JNIEnv* env, jclass /*natives*/,
                                                               jlong server) {
    NativeEndpoint* endpoint = from_handle(server);
    ipc_uninit_server(endpoint->handle);
    delete_endpoint(env, endpoint);
}

JNIEXPORT jlong JNICALL Java_org_vexatool_Natives_clientConnect(JNIEnv* env, jclass /*natives*/,
                                                                jbyteArray address, jbyteArray dev,
                                                                jint testItem, jint timeoutMs,
                                                                jobject dispatcher) {
    const CString servPath(env, address);
    const CString device(env, dev);
    NativeEndpoint* endpoint = new_endpoint(env, dispatcher, "vexatool-client");
    endpoint->handle =
        ipc_init_client2(servPath.get(), dispatcher != nullptr ? deliver_event : nullptr, endpoint,
                         device.get(), testItem, timeoutMs);
    if (endpoint->handle == nullptr) {
        delete_endpoint(env, endpoint);
        return 0;
    }
    return to_handle(endpoint);
}

JNIEXPORT jboolean JNICALL Java_org_vexatool_Natives_clientSend(JNIEnv* env, jclass /*natives*/,
                                                                jlong client, jint eventId,
                                                                jbyteArray data) {
    const std::vector<char> body = copy_body(env, data);
    return ipc_send_message(from_handle(client)->handle, eventId, body.data(),
                            static_cast<int32_t>(body.size()))
               ? JNI_TRUE
               : JNI_FALSE;
}

JNIEXPORT void JNICALL Java_org_vexatool_Natives_clientRelease(JNIEnv* env, jclass /*natives*/,
                                                               jlong client) {
    NativeEndpoint* endpoint = from_handle(client);
    ipc_uninit_client(endpoint->handle);
    delete_endpoint(env, endpoint);
}

// Releasing joins the thread that runs the listener, so a listener that
// released its own endpoint would wait for itself.
JNIEXPORT jboolean JNICALL Java_org_vexatool_Natives_insideOwnListener(JNIEnv* /*env*/,
                                                                       jclass /*natives*/,
                                                                       jlong endpoint) {
    return t_insideListenerOf == from_handle(endpoint) ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
