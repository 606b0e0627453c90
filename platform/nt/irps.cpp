#include "platform/nt/irps.h"

#include "platform/nt/machine.h"

#include <fmt/format.h>

namespace kelvane::nt {

void IrpTable::add(IRP* irp, std::unique_ptr<IrpState> state) {
    const std::scoped_lock guard(m_mutex);
    m_irps[irp] = std::move(state);
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
    for (CallFrame* frame = state->frames; frame != nullptr; frame = frame->outer) {
        frame->gone = true;
    }
    return state;
}

void IrpTable::enter(IrpState& state, IRP* irp, CallFrame& frame) {
    const std::scoped_lock guard(m_mutex);
    if (!state.sent) {
        state.sent = true;
        state.ownerLocation = irp->CurrentLocation;
    }
    if (state.frames != nullptr && !state.frames->completed) {
        state.frames->forwarded = true;
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
        const IO_STACK_LOCATION* base = reinterpret_cast<const IO_STACK_LOCATION*>(irp + 1);
        frame.marked = (base[frame.location - 1].Control & SL_PENDING_RETURNED) != 0;
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
        if (address < begin || address >= end) {
            ++next;
        } else if (next->second->sent) {
            return fmt::format("IRP {}, which is on its way", fmt::ptr(next->first));
        } else {
            next = next->second->owner == IrpOwner::Memory ? m_irps.erase(next) : std::next(next);
        }
    }
    return std::nullopt;
}

std::vector<IRP*> IrpTable::ofFile(const FILE_OBJECT* file) const {
    const std::scoped_lock guard(m_mutex);
    std::vector<IRP*> irps;
    for (const auto& [irp, state] : m_irps) {
        if (state->file == file && state->sent) {
            irps.push_back(irp);
        }
    }
    return irps;
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
