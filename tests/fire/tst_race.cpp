// Whether the thread sanitizer sees a race here, and only where there is one.
//
//   tst_race guarded    two threads write a number under one mutex
//   tst_race planted    each under a mutex of its own
#include <QMutex>
#include <QThread>

#include <cstdio>
#include <cstring>

namespace {

int number = 0;

class Writer : public QThread
{
public:
    explicit Writer(QMutex *of) : mutex(of) {}

    void run() override
    {
        for (int i = 0; i < 100000; ++i) {
            const QMutexLocker locker(mutex);
            ++number;
        }
    }

private:
    QMutex *mutex;
};

} // namespace

int main(int argc, char **argv)
{
    const bool isPlanted = argc > 1 && std::strcmp(argv[1], "planted") == 0;
    QMutex first;
    QMutex second;
    Writer one(&first);
    Writer other(isPlanted ? &second : &first);
    one.start();
    other.start();
    one.wait();
    other.wait();
    std::printf("%d\n", number); // read after both have ended: no race either
    return 0;
}
