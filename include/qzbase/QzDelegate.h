// qzbase: the callback record of threads and timers.
//
// A FastDelegate0<R> is two words: the object to call on, and a function that
// is handed that object. Bound to a member function, the function word is a
// small thunk made for that member at compile time; bound to a plain
// function, the object word holds the function and the function word a thunk
// that calls it. Both words 0 is the empty delegate. Delegates are copied by
// value, word by word, and own nothing: the bound object must outlive every
// call.
//
//   fastdelegate::FastDelegate0<unsigned int> d =
//       fastdelegate::MakeDelegate<Worker, &Worker::Run>(&worker);
//   fastdelegate::FastDelegate0<unsigned int> f(&PlainFunction);
//
// Threads: a delegate is a value; copying one that another thread writes at
// the same time is the caller's race, as for any two-word value.
#ifndef QZBASE_QZDELEGATE_H
#define QZBASE_QZDELEGATE_H

namespace fastdelegate {

template <class R>
class FastDelegate0 {
 public:
  typedef R (*Thunk)(void* object);
  typedef R (*Function)();

  FastDelegate0() : object_(0), function_(0) {}
  // A plain function; a null one gives the empty delegate.
  FastDelegate0(Function function)  // NOLINT: converts as the function pointer would
      : object_(function ? reinterpret_cast<void*>(function) : 0), function_(function ? &CallPlain : 0) {}
  // The two words as they are, for callers that bring their own thunk.
  FastDelegate0(void* object, Thunk thunk) : object_(object), function_(thunk) {}

  // `Method` of `object`, fixed at compile time so that the record stays two words.
  template <class T, R (T::*Method)()>
  static FastDelegate0 FromMember(T* object) {
    return FastDelegate0(static_cast<void*>(object), &CallMember<T, Method>);
  }

  bool empty() const { return object_ == 0 && function_ == 0; }
  void clear() { object_ = 0; function_ = 0; }
  bool operator!() const { return empty(); }
  bool operator==(const FastDelegate0& other) const { return object_ == other.object_ && function_ == other.function_; }
  bool operator!=(const FastDelegate0& other) const { return !(*this == other); }

  // Calling an empty delegate is the caller's fault, as calling a null
  // function pointer is.
  R operator()() const { return function_(object_); }

  void* object() const { return object_; }
  Thunk function() const { return function_; }

 private:
  static R CallPlain(void* object) { return reinterpret_cast<Function>(object)(); }
  template <class T, R (T::*Method)()>
  static R CallMember(void* object) { return (static_cast<T*>(object)->*Method)(); }

  void* object_;
  Thunk function_;
};

template <class T, unsigned int (T::*Method)()>
inline FastDelegate0<unsigned int> MakeDelegate(T* object) {
  return FastDelegate0<unsigned int>::template FromMember<T, Method>(object);
}

}  // namespace fastdelegate

#endif  // QZBASE_QZDELEGATE_H
