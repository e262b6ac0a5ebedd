// Event functors: call a member function of an object on another thread. The poster allocates them with new;
// the queue disposes of them. CFMFunctor* hold a plain pointer to the manager, which outlives every event.
// CFMRefFunctor* hold a reference to their file or block and keep it alive until the call has returned. The
// result of the member function is discarded.
#pragma once

#include "RtEvent.h"
#include "RtMessageBlock.h"
#include "RtReferenceControl.h"

class CFMFunctorBase : public IRtEvent {
public:
    int OnEventFire() override { return 0; }
};

/// A stored argument of a CFMRefFunctor.
template <class T>
class CFMArgument {
public:
    explicit CFMArgument(const T& value) : m_value(value) {}
    T& Get() { return m_value; }

private:
    T m_value;
};

/// The functor owns the chain and destroys it, whether or not it fired; the member function borrows it.
template <>
class CFMArgument<CRtMessageBlock*> {
public:
    explicit CFMArgument(CRtMessageBlock* chain) : m_chain(chain) {}
    CRtMessageBlock* Get() const { return m_chain.get(); }

private:
    CRtMessageChain m_chain;
};

/// Calls a function.
class CFMCall final : public CFMFunctorBase {
public:
    explicit CFMCall(std::function<void()> call) : m_call(std::move(call)) {}
    int OnEventFire() override {
        m_call();
        return 0;
    }

private:
    const std::function<void()> m_call;
};

template <class T, class R>
class CFMFunctor0 final : public CFMFunctorBase {
public:
    CFMFunctor0(T* target, R (T::*member)()) : m_target(target), m_member(member) {}
    int OnEventFire() override {
        (m_target->*m_member)();
        return 0;
    }

private:
    T* m_target;
    R (T::*m_member)();
};

/// Passes references to its two copies. A std::reference_wrapper returns a value to the sender.
template <class T, class R, class P1, class P2, class A, class B>
class CFMFunctor2 final : public CFMFunctorBase {
public:
    CFMFunctor2(T* target, R (T::*member)(P1, P2), const A& first, const B& second)
        : m_target(target), m_member(member), m_first(first), m_second(second) {}
    int OnEventFire() override {
        (m_target->*m_member)(m_first, m_second);
        return 0;
    }

private:
    T* m_target;
    R (T::*m_member)(P1, P2);
    A m_first;
    B m_second;
};

template <class T, class R>
class CFMRefFunctor0 final : public CFMFunctorBase {
public:
    CFMRefFunctor0(T* target, R (T::*member)()) : m_target(target), m_member(member) {}
    int OnEventFire() override {
        (m_target.Get()->*m_member)();
        return 0;
    }

private:
    CRtComAutoPtr<T> m_target;
    R (T::*m_member)();
};

template <class T, class R>
class CFMRefFunctor1 : public CFMFunctorBase {
public:
    CFMRefFunctor1(T* target, R (T::*member)(CRtMessageBlock*), CRtMessageChain chain)
        : m_target(target), m_member(member), m_chain(chain.release()) {}
    int OnEventFire() override {
        (m_target.Get()->*m_member)(m_chain.Get());
        return 0;
    }

protected:
    const CRtComAutoPtr<T> m_target;
    R (T::*const m_member)(CRtMessageBlock*);
    const CFMArgument<CRtMessageBlock*> m_chain;
};

template <class T, class R, class A, class B>
class CFMRefFunctor2 final : public CFMFunctorBase {
public:
    CFMRefFunctor2(T* target, R (T::*member)(A, B), A first, B second)
        : m_target(target), m_member(member), m_first(first), m_second(second) {}
    int OnEventFire() override {
        (m_target.Get()->*m_member)(m_first.Get(), m_second.Get());
        return 0;
    }

private:
    CRtComAutoPtr<T> m_target;
    R (T::*m_member)(A, B);
    CFMArgument<A> m_first;
    CFMArgument<B> m_second;
};
