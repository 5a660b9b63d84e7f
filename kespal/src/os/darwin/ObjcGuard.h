#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Runs an action; should an NSException leave it, hands that to `onException`. Anything else that is thrown
/// passes through. Stands in a file of its own: compilers disagree on @try and try in one source.
void kesObjcGuard(void (*action)(void), void (*onException)(void* exception));

#ifdef __cplusplus
}
#endif
