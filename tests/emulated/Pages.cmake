# The emulator has pages of 4 KiB as well, unless it is told to have those of other machines of this processor: 16 KiB
# as Macs, 64 KiB as some distributions. Mappings of files and shared segments it cannot cut to those.
foreach(kib 16 64)
  math(EXPR bytes "${kib} * 1024")
  set(pages PREFIX PagesOf${kib}KiB. ENVIRONMENT QEMU_PAGESIZE=${bytes})
  kes_test_again(kespal_thread_tests ${pages} ONLY *StackSizeTest.*:ThreadTest.*Stack*)
  kes_test_again(kesos_file_tests ${pages} ONLY ThreadsTest.*Stack*)
  kes_test_again(kesos_tests ${pages} ONLY StringsTest.*DoesNotReadTheDestination)
endforeach()
