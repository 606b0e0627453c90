#include "platform/nt/irps.h"

#include "platform/nt/machine.h"

#include <fmt/format.h>

#include <algorithm>

namespace kelvane::nt {

namespace {

// The calls of its dispatch routines have nothing to look at any more.
void abandon(IrpState& state) {
    for (CallFrame* frame = state.frames; frame != nullptr; frame = frame->outer) {
        frame->gone = true;
    }
    state.frames = nullptr;
}

} // namespace

void IrpTable::add(IRP* irp, std::unique_ptr<IrpState> state) {
    const std::scoped_lock guard(m_mutex);
    state->serial = ++m_serial;
    std::unique_ptr<IrpState>& slot = m_irps[irp];
    if (slot == nullptr) {
        slot = std::move(state);
    } else { // made anew, perhaps by a completion routine: the state stays where it is
        abandon(*slot);
        *slot = *state;
    }
}

IrpState* IrpTable::find(IRP* irp, const char* routine) {
    {
        const std::scoped_lock guard(m_mutex);
        if (const auto found = m_irps.find(irp); found != m_irps.end()) {
            return found->second.get();
        }
    }
    breach(Rule::IrpState, routine, fmt::format("{} is no IRP, or it was freed", fmt::ptr(irp)));
    return nullptr;
}

bool IrpTable::known(IRP* irp) const {
    const std::scoped_lock guard(m_mutex);
    return m_irps.contains(irp);
}

std::unique_ptr<IrpState> IrpTable::remove(IRP* irp) {
    const std::scoped_lock guard(m_mutex);
    const auto found = m_irps.find(irp);
    if (found == m_irps.end()) {
        return nullptr;
    }
    std::unique_ptr<IrpState> state = std::move(found->second);
    m_irps.erase(found);
    abandon(*state);
    return state;
}

namespace {

bool isMarked(const IRP* irp, CHAR location) {
    const auto* base = reinterpret_cast<const IO_STACK_LOCATION*>(irp + 1);
    return (base[location - 1].Control & SL_PENDING_RETURNED) != 0;
}

} // namespace

void IrpTable::enter(IrpState& state, IRP* irp, CallFrame& frame) {
    const std::scoped_lock guard(m_mutex);
    if (!state.sent) {
        state.sent = true;
        state.ownerLocation = irp->CurrentLocation;
    }
    if (CallFrame* outer = state.frames;
        outer != nullptr && !outer->completed && !outer->forwarded) {
        outer->forwarded = true;
        outer->marked = isMarked(irp, outer->location); // later, others may write there
    }
    irp->CurrentLocation--;
    irp->Tail.Overlay.CurrentStackLocation--;
    frame.location = irp->CurrentLocation;
    frame.outer = state.frames;
    state.frames = &frame;
}

void IrpTable::leave(IRP* irp, CallFrame& frame) {
    const std::scoped_lock guard(m_mutex);
    if (frame.gone) {
        return;
    }
    IrpState& state = *m_irps.at(irp);
    for (CallFrame** link = &state.frames; *link != nullptr; link = &(*link)->outer) {
        if (*link == &frame) {
            *link = frame.outer;
            break;
        }
    }
    if (!frame.completed && !frame.forwarded) {
        frame.marked = isMarked(irp, frame.location);
    }
}

void IrpTable::noteCompletion(IrpState& state, const IRP* irp) {
    const std::scoped_lock guard(m_mutex);
    for (CallFrame* frame = state.frames; frame != nullptr; frame = frame->outer) {
        if (!frame->completed && frame->location == irp->CurrentLocation) {
            frame->completed = true;
            frame->status = irp->IoStatus.Status;
            frame->marked =
                (irp->Tail.Overlay.CurrentStackLocation->Control & SL_PENDING_RETURNED) != 0;
        }
    }
}

std::optional<std::string> IrpTable::inUse(const std::byte* begin, const std::byte* end) {
    const std::scoped_lock guard(m_mutex);
    for (auto next = m_irps.begin(); next != m_irps.end();) {
        const auto* address = reinterpret_cast<const std::byte*>(next->first);
        const bool within = address >= begin && address < end;
        if (within && next->second->sent) {
            return fmt::format("IRP {}, which is on its way", fmt::ptr(next->first));
        }
        if (within && next->second->owner == IrpOwner::Memory) {
            abandon(*next->second);
            next = m_irps.erase(next);
        } else {
            ++next;
        }
    }
    return std::nullopt;
}

bool IrpTable::anyOfFile(const FILE_OBJECT* file) const {
    const std::scoped_lock guard(m_mutex);
    return std::ranges::any_of(m_irps, [file](const auto& entry) {
        return entry.second->file == file && entry.second->sent;
    });
}

IRP* IrpTable::pinOfFile(const FILE_OBJECT* file) {
    const std::scoped_lock guard(m_mutex);
    IRP* oldest = nullptr;
    IrpState* itsState = nullptr;
    for (const auto& [irp, state] : m_irps) {
        if (state->file == file && state->sent && !state->cancelled &&
            (oldest == nullptr || state->serial < itsState->serial)) {
            oldest = irp;
            itsState = state.get();
        }
    }
    if (oldest != nullptr) {
        itsState->cancelled = true;
        m_pinned.emplace(oldest, false);
    }
    return oldest;
}

void IrpTable::unpin(IRP* irp) {
    bool dropped;
    {
        const std::scoped_lock guard(m_mutex);
        const auto found = m_pinned.find(irp);
        dropped = found->second;
        m_pinned.erase(found);
    }
    if (dropped) {
        dropIrp(irp);
    }
}

bool IrpTable::leaveToUnpin(IRP* irp) {
    const std::scoped_lock guard(m_mutex);
    const auto found = m_pinned.find(irp);
    if (found == m_pinned.end()) {
        return false;
    }
    found->second = true;
    return true;
}

std::vector<std::pair<std::string, std::vector<std::string>>> IrpTable::leftOvers() const {
    const std::scoped_lock guard(m_mutex);
    std::vector<std::pair<std::string, std::vector<std::string>>> lines;
    for (const auto& [irp, state] : m_irps) {
        if (state->sent || state->owner != IrpOwner::Memory) {
            lines.emplace_back(fmt::format("IRP {} was never {}", fmt::ptr(irp),
                                           state->sent ? "completed" : "freed"),
                               state->made.lines());
        }
    }
    return lines;
}

void IrpTable::freeLeftOvers() {
    std::vector<IRP*> irps;
    {
        const std::scoped_lock guard(m_mutex);
        for (const auto& [irp, state] : m_irps) {
            if (state->owner != IrpOwner::Memory) {
                irps.push_back(irp);
            }
        }
    }
    for (IRP* irp : irps) {
        dropIrp(irp);
    }
}

} // namespace kelvane::nt
