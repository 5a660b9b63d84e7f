# The emulator has pages of 4 KiB as well, unless it is told to have those of other machines of this processor: 16 KiB
# as Macs, 64 KiB as some distributions. Some tests of mapped files and shared segments fail there; whether that is the
# emulator's doing nobody has shown yet.
foreach(kib 16 64)
  math(EXPR bytes "${kib} * 1024")
  set(pages PREFIX PagesOf${kib}KiB. ENVIRONMENT QEMU_PAGESIZE=${bytes})
  kes_test_again(kespal_thread_tests ${pages} ONLY *StackSizeTest.*:ThreadTest.*Stack*)
  kes_test_again(kesos_file_tests ${pages} ONLY ThreadsTest.*Stack*)
  kes_test_again(kesos_tests ${pages} ONLY StringsTest.*DoesNotReadTheDestination)
endforeach()
