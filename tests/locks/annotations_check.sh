#!/usr/bin/env bash
# annotations_check.sh CLANG INCLUDE_DIR...
# Compiles each case below with the thread safety analysis on and checks that
# clang reports the expected fault (an empty expectation: compiles clean).
set -uo pipefail
clang=$1
shift
includes=()
for dir in "$@"; do includes+=(-I "$dir"); done

failures=0
check() {
  local name=$1 expected=$2 body=$3 out
  out=$(printf '%s\n' '#include <zuhost/zumutex.h>' '#include <zuresource/zuresourcelist.h>' \
          '#include <zuresource/zuresourcestate.h>' '#include <condition_variable>' \
          'using namespace ZU;' "$body" |
        "$clang" -std=c++17 -fsyntax-only -Wthread-safety -x c++ "${includes[@]}" - 2>&1)
  if [ -z "$expected" ]; then
    if [ -n "$out" ]; then echo "FAIL $name: expected no diagnostic, got:"; echo "$out"; failures=$((failures + 1)); fi
  elif ! grep -qF -- "$expected" <<<"$out"; then
    echo "FAIL $name: expected \"$expected\", got:"; echo "$out"; failures=$((failures + 1))
  fi
}

# Every guarded read and write done right: no diagnostic (also proves the
# includes, so that the faults below fail for their own reason).
check "clean" "" '
struct Queue {
  ZUMutex mutex;
  std::condition_variable changed;
  int items ZU_GUARDED_BY(mutex) = 0;
  void take() { ZUMutexLock lock(mutex); while (items == 0) lock.wait(changed); --items; }
};
int count(ZUResourceState& s) { ZUCriticalSection lock(s.holdersMutex); return s.holders.size(); }
std::size_t members(ZUResourceList& g) { ZUCriticalSectionRead lock(g.resourceListMutex); return g.resourceList.size(); }'

check "state holders read without their lock" \
  "reading variable 'holders' requires holding mutex 's.holdersMutex'" '
int count(ZUResourceState& s) { return s.holders.size(); }'

check "waiters changed under the read side" \
  "writing variable 'waiters' requires holding mutex 'o.waitersMutex' exclusively" '
void add(ZUOwner& o) { ZUCriticalSectionRead lock(o.waitersMutex); o.waiters = ZUValue(); }'

check "group members read under another group's lock" \
  "reading variable 'resourceList' requires holding mutex 'b.resourceListMutex'" '
std::size_t members(ZUResourceList& a, ZUResourceList& b) {
  ZUCriticalSectionRead lock(a.resourceListMutex); return b.resourceList.size(); }'

check "guarded field after the lock let go" \
  "writing variable 'items' requires holding mutex 'mutex' exclusively" '
struct Queue {
  ZUMutex mutex;
  int items ZU_GUARDED_BY(mutex) = 0;
  void put() { ZUMutexLock lock(mutex); lock.unlock(); ++items; }
};'

check "a mutex taken twice" "acquiring mutex 'mutex' that is already held" '
struct Queue {
  ZUMutex mutex;
  void put() { ZUMutexLock lock(mutex); ZUMutexLock again(mutex); }
};'

check "copying the waiters with their lock held" \
  "cannot call function 'copyWaiters' while mutex 'o.waitersMutex' is held" '
ZUValue copy(ZUOwner& o) { ZUCriticalSectionWrite lock(o.waitersMutex); return o.copyWaiters(); }'

check "a lock left held" "mutex 'm' is still held at the end of function" '
void leak(ZUMutex& m) { m.lock(); }'

[ "$failures" -eq 0 ] && echo "all cases as expected"
exit $((failures != 0))
