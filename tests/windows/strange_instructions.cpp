// An image that the platform can't run: it reads a model-specific register, and a thread's own
// region of memory. check-instructions must name both.
extern "C" unsigned DriverEntry() {
    unsigned value;
    asm volatile("mov %%cr8, %%rax\n rdmsr\n mov %%gs:0x188, %0" : "=r"(value) : : "rax", "rdx");
    return value;
}
