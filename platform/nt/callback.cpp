#include "platform/nt/callback.h"

#include "platform/nt/backtrace.h"
#include "platform/nt/machine.h"

#include <fmt/format.h>

namespace kelvane::nt {

void CallbackGuard::report() {
    std::string text = fmt::format("the {} {} ", m_kind, describeAddress(m_routine));
    const std::size_t held = m_self.locks.count();
    if (held > m_locks) {
        text += fmt::format("returned with {} spin lock(s) held", held - m_locks);
    } else if (held < m_locks) {
        text += "released a spin lock of its caller";
    } else {
        text += fmt::format("was called at IRQL {} and returned at {}", m_irql, m_self.irql);
    }
    m_self.setIrql(m_irql);
    breach(Rule::IrqlChanged, m_kind, text);
}

} // namespace kelvane::nt
