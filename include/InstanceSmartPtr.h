// Scoped reference to a multiton instance of the host runtime (for example CExecutionContext): acquires the
// instance of an id on construction and releases it on every way out of the scope.
#pragma once

template <class T>
class CInstanceSmartPtr {
 public:
  explicit CInstanceSmartPtr(int id) : m_pInstance(T::acquireInstance(id)), m_iId(id) {}
  ~CInstanceSmartPtr() {
    if (m_pInstance != nullptr) T::releaseInstance(m_iId);
  }
  CInstanceSmartPtr(const CInstanceSmartPtr&) = delete;
  CInstanceSmartPtr& operator=(const CInstanceSmartPtr&) = delete;

  // Null when no instance of the id existed.
  T* get() const { return m_pInstance; }
  T* operator->() const { return m_pInstance; }
  explicit operator bool() const { return m_pInstance != nullptr; }

 private:
  T* m_pInstance;
  int m_iId;
};
