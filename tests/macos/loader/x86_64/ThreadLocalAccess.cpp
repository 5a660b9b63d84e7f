#include "ThreadLocals.h"

// Saves what a normal call may change and this one may not.
asm(R"(
.text
.globl threadLocalAccess
threadLocalAccess:
  push %rbp
  mov %rsp, %rbp
  push %rcx
  push %rdx
  push %rsi
  push %rdi
  push %r8
  push %r9
  push %r10
  push %r11
  sub $512, %rsp
  and $-16, %rsp
  fxsave (%rsp)
  call threadLocalAddress@PLT
  fxrstor (%rsp)
  lea -64(%rbp), %rsp
  pop %r11
  pop %r10
  pop %r9
  pop %r8
  pop %rdi
  pop %rsi
  pop %rdx
  pop %rcx
  pop %rbp
  ret
)");
