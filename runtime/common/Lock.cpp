#include <mutex>

#include "FxUtil.h"

struct HxCriticalSection::State {
    std::mutex mutex;
};

HxCriticalSection::HxCriticalSection() : state_(std::make_unique<State>()) {}
HxCriticalSection::~HxCriticalSection() = default;
void HxCriticalSection::enter() { state_->mutex.lock(); }
void HxCriticalSection::leave() { state_->mutex.unlock(); }
