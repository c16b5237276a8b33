// The host's containers: the counted vector, the plain vector and the
// intrusive doubly linked list that the edit records live in.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "host/OSCore.h"
#include "host/Ptr.h"

// Allocates through the OS layer, so that vectors built on one side of the
// host/plug-in boundary can be freed on the other.
template <typename T>
struct StdAllocator {
    using value_type = T;
    StdAllocator() = default;
    template <typename U>
    StdAllocator(const StdAllocator<U>&) {}
    T* allocate(std::size_t n) { return static_cast<T*>(QvOS::allocate(n * sizeof(T))); }
    void deallocate(T* p, std::size_t) { QvOS::free(p); }
    template <typename U>
    bool operator==(const StdAllocator<U>&) const {
        return true;
    }
};

// A counted vector with value behaviour: copies share their elements until
// one of them changes.
template <typename T>
class LightweightVector {
  public:
    using value_type = T;
    using const_iterator = typename std::vector<T>::const_iterator;

    LightweightVector() = default;
    LightweightVector(std::initializer_list<T> items) {
        for (const T& t : items)
            push_back(t);
    }

    std::size_t size() const { return rep_ ? rep_->items.size() : 0; }
    bool empty() const { return size() == 0; }
    const T& operator[](std::size_t i) const { return rep_->items[i]; }
    T& operator[](std::size_t i) { return own().items[i]; }
    const T& front() const { return rep_->items.front(); }
    const_iterator begin() const { return rep_ ? rep_->items.cbegin() : empty_().cbegin(); }
    const_iterator end() const { return rep_ ? rep_->items.cend() : empty_().cend(); }

    void push_back(T item) { own().items.push_back(std::move(item)); }
    void add(T item) { push_back(std::move(item)); }
    void clear() { rep_.reset(); }

  private:
    struct Rep : Qv::InternalRefCount {
        std::vector<T> items;
    };
    static const std::vector<T>& empty_() {
        static const std::vector<T> none;
        return none;
    }
    Rep& own() {
        if (!rep_) {
            rep_ = Qv::Ptr<Rep>(new Rep);
        } else if (rep_->refCount() > 1) {
            Qv::Ptr<Rep> copy(new Rep);
            copy->items = rep_->items;
            rep_ = copy;
        }
        return *rep_;
    }
    Qv::Ptr<Rep> rep_;
};

// The host's plain vector.
template <typename T>
class Vector : public std::vector<T> {
  public:
    using std::vector<T>::vector;
    void add(T item) { this->push_back(std::move(item)); }
};

// An element of a DLList. The list owns its elements and destroys them
// through this virtual destructor.
class DLListRec {
  public:
    DLListRec() = default;
    DLListRec(const DLListRec&) = delete;
    DLListRec& operator=(const DLListRec&) = delete;
    virtual ~DLListRec() = default;

    DLListRec* getNext() const { return next_; }
    DLListRec* getPrev() const { return prev_; }

  private:
    friend class DLList;
    DLListRec* next_ = nullptr;
    DLListRec* prev_ = nullptr;
};

class DLList {
  public:
    DLList() = default;
    DLList(const DLList&) = delete;
    DLList& operator=(const DLList&) = delete;
    DLList(DLList&& o) noexcept { take(o); }
    DLList& operator=(DLList&& o) noexcept {
        if (this != &o) {
            clear();
            take(o);
        }
        return *this;
    }
    virtual ~DLList() { clear(); }

    // Adds at the end and takes ownership.
    void append(DLListRec* rec) {
        rec->prev_ = last_;
        rec->next_ = nullptr;
        if (last_) {
            last_->next_ = rec;
        } else {
            first_ = rec;
        }
        last_ = rec;
        ++size_;
    }
    // Unlinks an element; the caller owns it afterwards.
    DLListRec* remove(DLListRec* rec) {
        if (rec->prev_)
            rec->prev_->next_ = rec->next_;
        else
            first_ = rec->next_;
        if (rec->next_)
            rec->next_->prev_ = rec->prev_;
        else
            last_ = rec->prev_;
        rec->next_ = rec->prev_ = nullptr;
        --size_;
        return rec;
    }
    void clear() {
        while (first_)
            delete remove(first_);
    }

    DLListRec* first() const { return first_; }
    DLListRec* last() const { return last_; }
    bool isEmpty() const { return first_ == nullptr; }
    std::size_t size() const { return size_; }

  private:
    void take(DLList& o) {
        first_ = std::exchange(o.first_, nullptr);
        last_ = std::exchange(o.last_, nullptr);
        size_ = std::exchange(o.size_, 0);
    }
    DLListRec* first_ = nullptr;
    DLListRec* last_ = nullptr;
    std::size_t size_ = 0;
};

// Walks a DLList forward. T is the element type the caller knows the list to
// hold; the iterator casts statically, as the host's does.
template <typename T = DLListRec>
class DLListIterator {
  public:
    explicit DLListIterator(const DLList& list) : current_(list.first()) {}
    T* current() const { return static_cast<T*>(current_); }
    T* operator*() const { return current(); }
    T* operator->() const { return current(); }
    explicit operator bool() const { return current_ != nullptr; }
    DLListIterator& operator++() {
        if (current_) current_ = current_->getNext();
        return *this;
    }

  private:
    DLListRec* current_;
};

// Range-for over a DLList whose elements are all T.
template <typename T>
class DLListRange {
  public:
    explicit DLListRange(const DLList& list) : list_(list) {}
    class iterator {
      public:
        explicit iterator(DLListRec* r) : r_(r) {}
        T* operator*() const { return static_cast<T*>(r_); }
        iterator& operator++() {
            r_ = r_->getNext();
            return *this;
        }
        bool operator!=(const iterator& o) const { return r_ != o.r_; }

      private:
        DLListRec* r_;
    };
    iterator begin() const { return iterator(list_.first()); }
    iterator end() const { return iterator(nullptr); }

  private:
    const DLList& list_;
};

template <typename T>
DLListRange<T> each(const DLList& list) {
    return DLListRange<T>(list);
}
