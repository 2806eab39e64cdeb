// An outside program built against the installed library.
#include <qkUtil.h>

#include <cstdio>

static int worker(void* arg) {
    static_cast<qkSemaphore*>(arg)->post();
    return 0;
}

int main() {
    qkSemaphore done(0);
    if (!qkThread::create(worker, &done, 0)) return 1;
    done.wait();
    qkMutex m;
    m.lock();
    bool owned = m.owner() == qkThread::id();
    m.unlock();
    std::printf("consumer: thread ran, mutex owned=%d\n", owned);
    return owned ? 0 : 1;
}
