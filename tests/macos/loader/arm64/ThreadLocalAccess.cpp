#include "ThreadLocals.h"

// Saves what a normal call may change and this one may not: all but x0, which has the result, and x16 and
// x17.
asm(R"(
.text
.globl threadLocalAccess
.type threadLocalAccess, %function
threadLocalAccess:
  stp x29, x30, [sp, #-16]!
  mov x29, sp
  stp x1, x2, [sp, #-16]!
  stp x3, x4, [sp, #-16]!
  stp x5, x6, [sp, #-16]!
  stp x7, x8, [sp, #-16]!
  stp x9, x10, [sp, #-16]!
  stp x11, x12, [sp, #-16]!
  stp x13, x14, [sp, #-16]!
  stp x15, x18, [sp, #-16]!
  stp q0, q1, [sp, #-32]!
  stp q2, q3, [sp, #-32]!
  stp q4, q5, [sp, #-32]!
  stp q6, q7, [sp, #-32]!
  stp q8, q9, [sp, #-32]!
  stp q10, q11, [sp, #-32]!
  stp q12, q13, [sp, #-32]!
  stp q14, q15, [sp, #-32]!
  stp q16, q17, [sp, #-32]!
  stp q18, q19, [sp, #-32]!
  stp q20, q21, [sp, #-32]!
  stp q22, q23, [sp, #-32]!
  stp q24, q25, [sp, #-32]!
  stp q26, q27, [sp, #-32]!
  stp q28, q29, [sp, #-32]!
  stp q30, q31, [sp, #-32]!
  bl threadLocalAddress
  ldp q30, q31, [sp], #32
  ldp q28, q29, [sp], #32
  ldp q26, q27, [sp], #32
  ldp q24, q25, [sp], #32
  ldp q22, q23, [sp], #32
  ldp q20, q21, [sp], #32
  ldp q18, q19, [sp], #32
  ldp q16, q17, [sp], #32
  ldp q14, q15, [sp], #32
  ldp q12, q13, [sp], #32
  ldp q10, q11, [sp], #32
  ldp q8, q9, [sp], #32
  ldp q6, q7, [sp], #32
  ldp q4, q5, [sp], #32
  ldp q2, q3, [sp], #32
  ldp q0, q1, [sp], #32
  ldp x15, x18, [sp], #16
  ldp x13, x14, [sp], #16
  ldp x11, x12, [sp], #16
  ldp x9, x10, [sp], #16
  ldp x7, x8, [sp], #16
  ldp x5, x6, [sp], #16
  ldp x3, x4, [sp], #16
  ldp x1, x2, [sp], #16
  ldp x29, x30, [sp], #16
  ret
)");
