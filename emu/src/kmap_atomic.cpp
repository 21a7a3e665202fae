// The kmap_atomic slots of a task, checked as 2.6.27's
// debug_kmap_atomic_prot() (arch/x86/mm/highmem_32.c, CONFIG_DEBUG_HIGHMEM)
// and kmap_atomic_prot()'s BUG_ON(!pte_none(...)) check them:
//
// - in a hard interrupt only KM_IRQ0/1, KM_BIO_SRC_IRQ, KM_BIO_DST_IRQ and
//   KM_BOUNCE_READ; in a softirq (or with bottom halves disabled) with
//   interrupts enabled only KM_IRQ0/1, KM_SOFTIRQ0/1, KM_SKB_SUNRPC_DATA,
//   KM_SKB_DATA_SOFTIRQ and KM_BOUNCE_READ: so KM_USER0/1 never in
//   interrupt context;
// - KM_IRQ0/1, KM_BOUNCE_READ and KM_BIO_SRC/DST_IRQ only with interrupts
//   disabled; KM_SOFTIRQ0/1 only in interrupt context or with interrupts
//   disabled;
// - a slot mapped again before it was unmapped (the kernel's BUG_ON);
// - kunmap_atomic of a slot that is not mapped, or with an address that
//   the slot's kmap_atomic did not return.
//
// The slots are per CPU in the kernel; a task keeps its CPU between
// kmap_atomic and kunmap_atomic (preemption is disabled), and interrupts
// of that CPU are why the types exist, so per task is the same model
// here.  2.6.27 checks only high-memory pages (a low-memory page is not
// mapped at all) and only warns (WARN_ON) on a wrong type; the emulation
// checks every page, since whether a page is high depends on the machine,
// and a wrong slot is a violation: on another machine it corrupts the
// mapping of whoever shares the slot.
#include "core.hpp"
#include "checks.hpp"

namespace {

struct Slot {
	const void *addr = nullptr;
	emu::Site site;
};
thread_local Slot t_slots[KM_TYPE_NR];

const char *const slot_names[KM_TYPE_NR] = {
	"KM_BOUNCE_READ", "KM_SKB_SUNRPC_DATA", "KM_SKB_DATA_SOFTIRQ",
	"KM_USER0", "KM_USER1", "KM_BIO_SRC_IRQ", "KM_BIO_DST_IRQ",
	"KM_PTE0", "KM_PTE1", "KM_IRQ0", "KM_IRQ1", "KM_SOFTIRQ0",
	"KM_SOFTIRQ1",
};

std::uintptr_t page_of(const void *addr)
{
	return reinterpret_cast<std::uintptr_t>(addr) & PAGE_MASK;
}

void check_type(int type, emu::Site site, const char *what)
{
	if (type < 0 || type >= KM_TYPE_NR)
		emu::violation(site, std::string(what) + " of slot " +
			       std::to_string(type) + ", not a km_type");
}

// debug_kmap_atomic_prot(): why `type` is wrong here, or nullptr.
const char *wrong_context(int type)
{
	const bool irq = emu_in_irq(), soft = emu_in_softirq();
	const bool off = emu_irqs_disabled();
	if (irq) {
		if (type != KM_IRQ0 && type != KM_IRQ1 &&
		    type != KM_BIO_SRC_IRQ && type != KM_BIO_DST_IRQ &&
		    type != KM_BOUNCE_READ)
			return "in a hard interrupt";
	} else if (soft && !off) {
		if (type != KM_IRQ0 && type != KM_IRQ1 &&
		    type != KM_SOFTIRQ0 && type != KM_SOFTIRQ1 &&
		    type != KM_SKB_SUNRPC_DATA &&
		    type != KM_SKB_DATA_SOFTIRQ && type != KM_BOUNCE_READ)
			return "in softirq context";
	}
	if (type == KM_IRQ0 || type == KM_IRQ1 || type == KM_BOUNCE_READ ||
	    type == KM_BIO_SRC_IRQ || type == KM_BIO_DST_IRQ) {
		if (!off)
			return "with interrupts enabled";
	} else if (type == KM_SOFTIRQ0 || type == KM_SOFTIRQ1) {
		if (!irq && !soft && !off)
			return "in process context with interrupts enabled";
	}
	return nullptr;
}

}  // namespace

namespace emu {

void kmap_atomic_slot_map(int type, void *addr, Site site)
{
	check_type(type, site, "kmap_atomic");
	if (const char *why = wrong_context(type))
		violation(site, std::string("kmap_atomic slot ") +
			  slot_names[type] + " used " + why);
	Slot &s = t_slots[type];
	if (s.addr)
		violation(site, std::string("kmap_atomic slot ") +
			  slot_names[type] + " mapped again while still "
			  "mapped (by kmap_atomic at " + to_string(s.site) +
			  ")");
	s.addr = addr;
	s.site = site;
}

void kmap_atomic_slot_unmap(int type, void *addr, Site site)
{
	check_type(type, site, "kunmap_atomic");
	Slot &s = t_slots[type];
	if (!s.addr)
		violation(site, std::string("kunmap_atomic of slot ") +
			  slot_names[type] + ", which is not mapped");
	if (page_of(addr) != page_of(s.addr))
		violation(site, std::string("kunmap_atomic of slot ") +
			  slot_names[type] + " with an address its "
			  "kmap_atomic (at " + to_string(s.site) +
			  ") did not return");
	s.addr = nullptr;
}

}  // namespace emu

// irq_enter()/irq_exit(): a hard interrupt's handler runs between them
// (the processor has disabled interrupts on entry).
extern "C" void irq_enter(void)
{
	emu::cur()->hardirq_depth++;
}

extern "C" void irq_exit(void)
{
	emu_task *t = emu::cur();
	if (t->hardirq_depth <= 0)
		emu::violation(emu::Site{"irq_exit", 0}, "irq_exit without irq_enter");
	t->hardirq_depth--;
}
