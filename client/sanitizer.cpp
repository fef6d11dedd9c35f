// Built into kepclient only with -DKEP_SANITIZE=ON.
//
// When a blocking property read ends in an error while the machine is busy,
// QtDBus 5.15 itself leaks the read's call message and the reply's strings
// (made inside its own D-Bus thread). LeakSanitizer leaves exactly those
// out; any other leak is still reported and fails the run. Whole call stacks
// are needed to tell them apart.
extern "C" const char *__asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}

extern "C" const char *__lsan_default_options()
{
    return "print_suppressions=0"; // standard error is the program's output
}

extern "C" const char *__lsan_default_suppressions()
{
    return "leak:QDBusAbstractInterfaceBase::qt_metacall\n"
           "leak:dbus_connection_dispatch\n";
}
