#pragma once

#include <cerrno>
#include <new>

/// Makes and disposes of objects of one kind that a module provides.
/// Threads:   create and destroy from any thread.
/// Ownership: the caller owns what create() gives and hands it back to destroy() of the same creator.
/// Errors:    create() returns null with errno ENOMEM. init() and fini() return 0, or -1 on failure. The
///            order of the virtual functions is binary interface between module and framework.
template <class T> class Object_Creator_T
{
public:
  virtual ~Object_Creator_T() = default;
  /// Receives the words of the service configuration line, without a program name.
  virtual int init(int, char**) { return 0; }
  virtual int fini() { return 0; }
  virtual T* create() = 0;
  virtual void destroy(T* object) = 0;
};

template <class Base, class P> class Object_Creator_Impl_T;

/// The creator of P, seen as T.
template <class T, class P> class Object_Creator_Impl_T<Object_Creator_T<T>, P> : public Object_Creator_T<T>
{
public:
  T* create() override
  {
    T* object = nullptr;
    try {
      object = new (std::nothrow) P;
    } catch (const std::bad_alloc&) {
      // Thrown by a member, such as a counted pointer: must not cross into the framework.
    }
    if (!object)
      errno = ENOMEM;
    return object;
  }

  void destroy(T* object) override { delete object; }
};
