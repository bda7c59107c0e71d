// QuorvilSync2Intern.h: intrusive lists whose elements go back to their pools, without any allocation
// Synchronisation, on Foundation

#ifndef QUORVIL_QUORVILSYNC2INTERN_H
#define QUORVIL_QUORVILSYNC2INTERN_H

#include "Quorvil/QuorvilExport.h"
#include "Quorvil/QuorvilSyncLockGroup.h"

/// The lower layer of pool-backed queues. Nothing here locks: a list and its elements are guarded by the lock group of
/// the structure that owns them, and a thread holds that group, as its owner, during every call. Where an element can
/// go back to its pool, a `Guard&` proves it. `@realtime bounded` speaks of the own work here, beside a pool's
/// `takeBack`.
namespace quorvil::sync2::intern {

class Element;

/// Where elements come from and go back to.
class QUORVIL_API Pool
{
public:
    /// A pool that knows no elements.
    ///
    /// @threads any   @realtime bounded
    Pool();

    /// The elements that belong to it are gone by then, or are told another pool.
    ///
    /// @threads owner
    virtual ~Pool();

    /// The element has come home; what becomes of it, and how long that takes, is the pool's affair.
    ///
    /// @param guard    holds the group of the structure that the element leaves
    /// @param element  in no list
    /// @threads owner
    virtual void takeBack(sync::Guard& guard, Element* element) = 0;

    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;
};

/// The link and the pool of an object that travels through lists: a base class, or a member, of that object.
class QUORVIL_API Element
{
public:
    /// In no list.
    ///
    /// @param pool  where it belongs, not owned; null: nowhere yet
    /// @threads any   @realtime bounded
    Element(Pool* pool = nullptr);

    /// The element is in no list; its pool is not asked.
    ///
    /// @threads owner   @realtime bounded
    virtual ~Element();

    /// Sets where the element belongs.
    ///
    /// @param pool  not owned; null: nowhere
    /// @threads owner   @realtime bounded
    void setPool(Pool* pool);

    /// Gives the element to its pool's `takeBack`.
    ///
    /// @throws  what `takeBack` throws
    /// @requires pool
    /// @threads owner   @realtime bounded
    void goBackToPool(sync::Guard& guard);

    /// The element behind this one in its list; null if it is the last, or in no list.
    ///
    /// @threads owner   @realtime bounded
    Element* getNext() const;

    /// Where the element belongs, or null.
    ///
    /// @threads owner   @realtime bounded
    Pool* getPool() const;

    Element(const Element&) = delete;
    Element& operator=(const Element&) = delete;

private:
    friend class Fifo;

    Pool* pool;
    Element* next = nullptr;
};

/// A list that is filled at the tail and emptied at the head. It links elements and owns none; it keeps no count.
class QUORVIL_API Fifo
{
public:
    /// An empty list.
    ///
    /// @threads any   @realtime bounded
    Fifo();

    /// Appends `e`.
    ///
    /// @param e  in no list
    /// @requires !e->next
    /// @requires dbgInvariant()
    /// @threads owner   @realtime bounded
    void pushBack(Element* e);

    /// Takes the first element out.
    ///
    /// @return null if the list is empty
    /// @requires dbgInvariant()
    /// @threads owner   @realtime bounded
    Element* popFront();

    /// Takes a run of consecutive elements out of this list and puts it into `to`, in constant time. The
    /// groups of both lists are held.
    ///
    /// @param fromAfterThis  the element before the run; null: the run begins with the first element
    /// @param fromUntilThis  the run's last element; it is in this list, behind `fromAfterThis`
    /// @param to             another list, or this one
    /// @param toAfterThis    the element of `to`, outside the run, behind which the run comes; null: it comes first
    /// @requires fromUntilThis
    /// @requires dbgInvariant()
    /// @threads owner   @realtime bounded
    void moveRange(Element* fromAfterThis, Element* fromUntilThis, Fifo& to, Element* toAfterThis);

    /// Empties the list: each element, the first one first, goes back to its pool. What a pool throws ends it: the
    /// element in hand is in no list then, and the rest stays.
    ///
    /// @throws  what `takeBack` throws
    /// @requires e
    /// @requires pool
    /// @requires dbgInvariant()
    /// @threads owner   @realtime bounded
    void allBackToPools(sync::Guard& guard);

    /// Whether head and tail are both there or both missing.
    ///
    /// @threads owner   @realtime bounded
    bool dbgInvariant() const;

    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

private:
    Element* head = nullptr;
    Element* tail = nullptr;
};

/// Owns one element, or none, and gives it back to its pool at its end, under the guard that it was made with. The
/// guard outlives it.
class QUORVIL_API PoolAccess
{
public:
    /// @param guard    holds the element's group
    /// @param element  in no list; may be null
    /// @threads owner   @realtime bounded
    PoolAccess(sync::Guard& guard, Element* element);

    /// Takes guard and element; `other` holds none then.
    ///
    /// @threads owner   @realtime bounded
    PoolAccess(PoolAccess&& other) noexcept;

    /// Exchanges the elements; each guard stays where it is. Both groups are held.
    ///
    /// @threads owner   @realtime bounded
    PoolAccess& operator=(PoolAccess&& other) noexcept;

    /// Gives the element back. An exception of the pool ends the process.
    ///
    /// @requires pool
    /// @threads owner   @realtime bounded
    ~PoolAccess();

    /// Hands the element out; the object holds none then.
    ///
    /// @threads owner   @realtime bounded
    Element* release();

    /// The element, still owned by this object, or null.
    ///
    /// @threads owner   @realtime bounded
    Element* get() const;

    PoolAccess(const PoolAccess&) = delete;
    PoolAccess& operator=(const PoolAccess&) = delete;

private:
    sync::Guard& guard;
    Element* element;
};

} // namespace quorvil::sync2::intern

#endif
