// An image that no streaming driver may look like: it imports a C runtime and a kernel routine that
// no published header declares. check-imports must name both.
extern "C" __declspec(dllimport) int puts(const char*);
extern "C" __declspec(dllimport) void ObReferenceObjectByName();
extern "C" __declspec(dllimport) unsigned DbgPrint(const char*, ...);

extern "C" int DriverEntry() {
    ObReferenceObjectByName();
    return puts("") + static_cast<int>(DbgPrint(""));
}
