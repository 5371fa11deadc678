#include "ostrak/ReferenceBase.hpp"

#include <string>
#include <typeinfo>

#include "ostrak/Diagnostics.hpp"
#include "ostrak/TypeInfo.hpp"

namespace Ostrak {
namespace {

std::string describe(const char* what, const std::type_info* type) {
  std::string text = what;
  if (type) {
    text += " (";
    text += TypeInfo(*type).readableName();
    text += ")";
  }
  const char* position = getLastKnownSourceCodeLine();
  if (position && *position) {
    text += " near ";
    text += position;
  }
  return text;
}

}  // namespace

ReferenceCounter::ReferenceCounter() : block_(new ReferenceBlock) {
  block_->object.store(this, std::memory_order_release);
}

ReferenceCounter::~ReferenceCounter() {
  ReferenceBlock* block = block_;
  block->object.store(nullptr, std::memory_order_release);
  int32_t strong = block->strong.load(std::memory_order_acquire);
  if (strong > 0) {
    // Destroyed while strong handles still name it (a stack or member object
    // that was also held by handles). The handles keep the block; the last
    // of them frees it.
    reportDiagnostic(Diagnostic::InvalidPointer,
                     describe("object destroyed while strong handles remain", nullptr));
    return;
  }
  block->strong.store(ReferenceBlock::kDead, std::memory_order_release);
  block->releaseWeak();
}

bool ReferenceBlock::adoptFromRaw() noexcept {
  int32_t previous = strong.fetch_add(1, std::memory_order_acq_rel);
  ReferenceCounter* target = object.load(std::memory_order_acquire);
  if (previous < 0 || !target) {
    strong.fetch_sub(1, std::memory_order_acq_rel);
    reportDiagnostic(Diagnostic::InvalidPointer,
                     describe("strong handle requested on a destroyed object", nullptr));
    return false;
  }
  if (!(flags.load(std::memory_order_acquire) & kDeferredDone) &&
      !(flags.fetch_or(kDeferredDone, std::memory_order_acq_rel) & kDeferredDone)) {
    try {
      target->DeferredConstructor();
    } catch (...) {
      reportDiagnostic(Diagnostic::HookException,
                       describe("deferred initialisation threw", &typeid(*target)));
    }
  }
  return true;
}

void ReferenceBlock::endOfLife() noexcept {
  ReferenceCounter* target = object.load(std::memory_order_acquire);
  if (!target) {
    // The object was destroyed under these strong handles; the block's hold
    // passed to them and ends with the last one.
    releaseWeak();
    return;
  }
  if (!(flags.fetch_or(kEndOfLifeDone, std::memory_order_acq_rel) & kEndOfLifeDone)) {
    // A guard reference keeps handles taken and dropped during the last rites
    // from starting a second end of life.
    strong.fetch_add(1, std::memory_order_relaxed);
    try {
      target->extremeUnction();
    } catch (...) {
      reportDiagnostic(Diagnostic::HookException,
                       describe("extremeUnction threw", &typeid(*target)));
    }
    // Once the guard is gone another thread may finish the object, so the
    // report must not touch it after that.
    const std::type_info* type = &typeid(*target);
    if (strong.fetch_sub(1, std::memory_order_acq_rel) != 1) {
      reportDiagnostic(Diagnostic::CancelledDestruction,
                       describe("strong handles taken during end of life remain", type));
      return;
    }
  }
  int32_t expected = 0;
  if (!strong.compare_exchange_strong(expected, kDead, std::memory_order_acq_rel)) {
    return;  // promoted meanwhile: the promoting handle finishes the job
  }
  delete target;
}

void ReferenceBlock::releaseInvalidStrong(int32_t previous) noexcept {
  strong.fetch_add(1, std::memory_order_acq_rel);  // undo, so the count stays as it was
  reportDiagnostic(Diagnostic::InvalidPointer,
                   describe(previous == 0 ? "strong handle released on a count of zero"
                                          : "strong handle released after destruction",
                            nullptr));
}

}  // namespace Ostrak
