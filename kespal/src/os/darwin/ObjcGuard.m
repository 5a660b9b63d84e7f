#include "os/darwin/ObjcGuard.h"

#import <Foundation/Foundation.h>

void kesObjcGuard(void (*action)(void), void (*onException)(void* exception)) {
  @try {
    action();
  } @catch (NSException* exception) {
    onException((void*)exception);
  }
}
