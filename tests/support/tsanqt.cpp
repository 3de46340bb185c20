// What the thread sanitizer has to be told about Qt, whose libraries are not instrumented.
//
// Qt's mutexes and threads order memory inside the library, where the sanitizer sees nothing, so it
// would report correct code. The functions below stand before Qt's own in the programs under test: they
// do what Qt does and tell of it. Nothing is hidden by that: an order is only told where it exists.
// Tests link this file by themselves (see CMakeLists.txt here); tst_race shows that races are still seen.
#include <QMutex>
#include <QThread>

#include <dlfcn.h>

extern "C" {
void __tsan_acquire(void *address);
void __tsan_release(void *address);
void __tsan_mutex_pre_lock(void *address, unsigned flags);
void __tsan_mutex_post_lock(void *address, unsigned flags, int recursion);
int __tsan_mutex_pre_unlock(void *address, unsigned flags);
void __tsan_mutex_post_unlock(void *address, unsigned flags);
}

extern "C" Q_DECL_EXPORT const char *__tsan_default_options()
{
    // What Qt does inside, it does under locks that we do not see. And the size that the sanitizer guesses
    // for a library's thread-local block is terabytes at times, which it then cannot allocate.
    return "ignore_noninstrumented_modules=1:intercept_tls_get_addr=0";
}

extern "C" Q_DECL_EXPORT const char *__tsan_default_suppressions()
{
    // QThread's destructor takes down the condition on which wait() waits. The thread has broadcast on it as
    // its last act and under the mutex that the destructor takes first, but that mutex is inside Qt.
    return "race:QWaitCondition::~QWaitCondition\n"
           // glibc keeps the time zone's name under a lock of its own, which is not instrumented.
           "race:tzset_internal\n";
}

namespace {

constexpr unsigned tryLock = 1u << 4;
constexpr unsigned tryLockFailed = 1u << 5;

template <typename Function>
Function *qts(const char *symbol)
{
    return reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, symbol));
}

bool ended(const QThread *thread, bool is)
{
    if (is)
        __tsan_acquire(const_cast<QThread *>(thread));
    return is;
}

/// A call that waits in another thread's queue: whoever makes it comes after whoever has asked for it.
class OrderedCall : public QtPrivate::QSlotObjectBase
{
public:
    explicit OrderedCall(QSlotObjectBase *call) : QSlotObjectBase(&OrderedCall::perform), inner(call)
    {
        __tsan_release(this);
    }

private:
    static __attribute__((no_sanitize("thread"))) void perform(int what, QSlotObjectBase *self,
                                                               QObject *receiver, void **arguments, bool *)
    {
        __tsan_acquire(self);
        const auto ordered = static_cast<OrderedCall *>(self);
        if (what == Call)
            return ordered->inner->call(receiver, arguments);
        if (what != Destroy)
            return;
        ordered->inner->destroyIfLastRef();
        delete ordered;
    }

    QSlotObjectBase *const inner;
};

} // namespace

bool QMetaObject::invokeMethodImpl(QObject *object, QtPrivate::QSlotObjectBase *slot, Qt::ConnectionType type,
                                   void *result)
{
    static const auto qtInvoke = qts<bool(QObject *, QtPrivate::QSlotObjectBase *, Qt::ConnectionType,
                                          void *)>(
        "_ZN11QMetaObject16invokeMethodImplEP7QObjectPN9QtPrivate15QSlotObjectBaseEN2Qt14ConnectionTypeEPv");
    return qtInvoke(object, new OrderedCall(slot), type, result);
}

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto qtLock = qts<void(QMutex *)>("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, 0);
    qtLock(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

bool QMutex::tryLock(int timeout) QT_MUTEX_LOCK_NOEXCEPT
{
    static const auto qtTryLock = qts<bool(QMutex *, int)>("_ZN6QMutex7tryLockEi");
    __tsan_mutex_pre_lock(this, ::tryLock);
    const bool isLocked = qtTryLock(this, timeout);
    __tsan_mutex_post_lock(this, isLocked ? ::tryLock : ::tryLock | tryLockFailed, 0);
    return isLocked;
}

void QMutex::unlock() noexcept
{
    static const auto qtUnlock = qts<void(QMutex *)>("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    qtUnlock(this);
    __tsan_mutex_post_unlock(this, 0);
}

/// finished() comes in the thread itself, after run(); whoever then sees that it has ended comes later.
void QThread::start(Priority priority)
{
    static const auto qtStart = qts<void(QThread *, Priority)>("_ZN7QThread5startENS_8PriorityE");
    const auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = connect(
        this, &QThread::finished, this,
        [this, connection] {
            disconnect(*connection);
            __tsan_release(this);
        },
        Qt::DirectConnection);
    qtStart(this, priority);
}

bool QThread::wait(QDeadlineTimer deadline)
{
    static const auto qtWait = qts<bool(QThread *, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
    return ended(this, qtWait(this, deadline));
}

bool QThread::wait(unsigned long time)
{
    static const auto qtWait = qts<bool(QThread *, unsigned long)>("_ZN7QThread4waitEm");
    return ended(this, qtWait(this, time));
}

bool QThread::isRunning() const
{
    static const auto qtIsRunning = qts<bool(const QThread *)>("_ZNK7QThread9isRunningEv");
    return !ended(this, !qtIsRunning(this));
}

bool QThread::isFinished() const
{
    static const auto qtIsFinished = qts<bool(const QThread *)>("_ZNK7QThread10isFinishedEv");
    return ended(this, qtIsFinished(this));
}

/// Does nothing: a thread ended from outside unwinds through frames of the sanitizer's own, which takes
/// that for a fault and ends the process. So here every straggler is one that cannot be ended.
void QThread::terminate() {}
