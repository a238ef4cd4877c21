// Gap declarations for <Foundation/Foundation.h>: used only where no Apple SDK is present.
#pragma once
#include <CoreFoundation/CoreFoundation.h>
#include <dispatch/dispatch.h>
#include <mach/message.h>
#include <objc/NSObject.h>
#include <objc/message.h>
#include <objc/runtime.h>
#include <bsm/audit.h>
#include <sys/_types/_uuid_t.h>
#include <stdbool.h>
#include <sys/types.h>

#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")
#define NS_FORMAT_FUNCTION(F, A) __attribute__((format(__NSString__, F, A)))
#define NS_REQUIRES_NIL_TERMINATION __attribute__((sentinel(0, 1)))
#define NS_UNAVAILABLE __attribute__((unavailable))
#define NS_INLINE static __inline__ __attribute__((always_inline))
#define NS_NOESCAPE __attribute__((noescape))
#define NS_ENUM(type, name) CF_ENUM(type, name)
#define NS_OPTIONS(type, name) CF_OPTIONS(type, name)
#ifdef __cplusplus
#define FOUNDATION_EXPORT extern "C"
#else
#define FOUNDATION_EXPORT extern
#endif
// The real header defines these two as macros too.
#ifndef YES
#define YES __objc_yes
#define NO __objc_no
#endif

NS_ASSUME_NONNULL_BEGIN

@class NSString, NSMutableString, NSData, NSArray, NSMutableArray, NSDictionary, NSMutableDictionary, NSSet, NSNumber;
@class NSURL, NSError, NSCoder, NSDate, NSBundle, NSNull, NSUUID, NSLocale, NSXPCConnection, NSXPCInterface, NSXPCListener, NSXPCListenerEndpoint;

typedef struct _NSZone NSZone;
typedef double NSTimeInterval;
typedef struct _NSRange { NSUInteger location; NSUInteger length; } NSRange;
NS_INLINE NSRange NSMakeRange(NSUInteger loc, NSUInteger len) {
    NSRange r;
    r.location = loc;
    r.length = len;
    return r;
}
typedef NSString *NSErrorDomain;
typedef NSString *NSErrorUserInfoKey;
typedef NSString *NSExceptionName;
typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4, NSASCIIStringEncoding = 1 };
typedef NS_ENUM(NSInteger, NSComparisonResult) { NSOrderedAscending = -1L, NSOrderedSame, NSOrderedDescending };

FOUNDATION_EXPORT void NSLog(NSString *format, ...) NS_FORMAT_FUNCTION(1, 2);
FOUNDATION_EXPORT Protocol *_Nullable NSProtocolFromString(NSString *namestr);
FOUNDATION_EXPORT NSString *NSStringFromProtocol(Protocol *proto);
FOUNDATION_EXPORT NSString *NSStringFromClass(Class aClass);
FOUNDATION_EXPORT Class _Nullable NSClassFromString(NSString *aClassName);
FOUNDATION_EXPORT SEL NSSelectorFromString(NSString *aSelectorName);
FOUNDATION_EXPORT NSErrorUserInfoKey const NSLocalizedDescriptionKey;
FOUNDATION_EXPORT NSErrorUserInfoKey const NSDebugDescriptionErrorKey;
enum : NSInteger { NSCoderReadCorruptError = 4864 };
FOUNDATION_EXPORT NSErrorDomain const NSCocoaErrorDomain;
FOUNDATION_EXPORT NSErrorDomain const NSPOSIXErrorDomain;
FOUNDATION_EXPORT NSExceptionName const NSInternalInconsistencyException;

@interface NSObject (NSCoderMethods)
- (id)copy;
- (id)mutableCopy;
@end
@protocol NSCopying
- (id)copyWithZone:(nullable NSZone *)zone;
@end
@protocol NSMutableCopying
- (id)mutableCopyWithZone:(nullable NSZone *)zone;
@end
@protocol NSCoding
- (void)encodeWithCoder:(NSCoder *)coder;
- (nullable instancetype)initWithCoder:(NSCoder *)coder;
@end
@protocol NSSecureCoding <NSCoding>
@required
@property (class, readonly) BOOL supportsSecureCoding;
@end
@protocol NSLocking
- (void)lock;
- (void)unlock;
@end

typedef struct {
    unsigned long state;
    id __unsafe_unretained _Nullable *_Nullable itemsPtr;
    unsigned long *_Nullable mutationsPtr;
    unsigned long extra[5];
} NSFastEnumerationState;
@protocol NSFastEnumeration
- (NSUInteger)countByEnumeratingWithState:(NSFastEnumerationState *)state
                                  objects:(id __unsafe_unretained _Nullable[_Nonnull])buffer
                                    count:(NSUInteger)len;
@end

@interface NSString : NSObject <NSCopying, NSMutableCopying, NSSecureCoding>
@property (readonly) NSUInteger length;
@property (nullable, readonly) const char *UTF8String;
@property (readonly, copy) NSString *lowercaseString;
- (instancetype)initWithFormat:(NSString *)format, ... NS_FORMAT_FUNCTION(1, 2);
- (nullable instancetype)initWithBytes:(const void *)bytes length:(NSUInteger)len encoding:(NSStringEncoding)encoding;
- (nullable instancetype)initWithUTF8String:(const char *)nullTerminatedCString;
+ (instancetype)stringWithFormat:(NSString *)format, ... NS_FORMAT_FUNCTION(1, 2);
+ (nullable instancetype)stringWithUTF8String:(const char *)nullTerminatedCString;
- (BOOL)isEqualToString:(NSString *)aString;
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)enc;
- (nullable NSData *)dataUsingEncoding:(NSStringEncoding)encoding;
- (nullable NSData *)dataUsingEncoding:(NSStringEncoding)encoding allowLossyConversion:(BOOL)lossy;
- (NSComparisonResult)compare:(NSString *)string;
- (NSComparisonResult)caseInsensitiveCompare:(NSString *)string;
@end
@interface NSMutableString : NSString
- (void)appendString:(NSString *)aString;
@end

@interface NSData : NSObject <NSCopying, NSMutableCopying, NSSecureCoding>
@property (readonly) NSUInteger length;
@property (readonly) const void *bytes __attribute__((objc_returns_inner_pointer));
+ (instancetype)dataWithBytes:(nullable const void *)bytes length:(NSUInteger)length;
@end

@interface NSValue : NSObject <NSCopying, NSSecureCoding>
@property (readonly) const char *objCType;
@end
@interface NSNumber : NSValue
+ (NSNumber *)numberWithChar:(char)value;
+ (NSNumber *)numberWithInt:(int)value;
+ (NSNumber *)numberWithUnsignedInt:(unsigned int)value;
+ (NSNumber *)numberWithLong:(long)value;
+ (NSNumber *)numberWithUnsignedLong:(unsigned long)value;
+ (NSNumber *)numberWithLongLong:(long long)value;
+ (NSNumber *)numberWithUnsignedLongLong:(unsigned long long)value;
+ (NSNumber *)numberWithDouble:(double)value;
+ (NSNumber *)numberWithInteger:(NSInteger)value;
+ (NSNumber *)numberWithUnsignedInteger:(NSUInteger)value;
+ (NSNumber *)numberWithBool:(BOOL)value;
@property (readonly) int intValue;
@property (readonly) long long longLongValue;
@property (readonly) unsigned long long unsignedLongLongValue;
@property (readonly) double doubleValue;
@property (readonly) BOOL boolValue;
@end

@interface NSDate : NSObject <NSCopying, NSSecureCoding>
@property (readonly) NSTimeInterval timeIntervalSince1970;
+ (instancetype)date;
+ (instancetype)dateWithTimeIntervalSince1970:(NSTimeInterval)secs;
@end

@interface NSNull : NSObject <NSCopying, NSSecureCoding>
+ (NSNull *)null;
@end

@interface NSUUID : NSObject <NSCopying, NSSecureCoding>
- (instancetype)initWithUUIDBytes:(const uuid_t _Nullable)bytes;
- (void)getUUIDBytes:(uuid_t _Nonnull)uuid;
@end


@interface NSArray<__covariant ObjectType> : NSObject <NSCopying, NSMutableCopying, NSSecureCoding, NSFastEnumeration>
@property (readonly) NSUInteger count;
- (ObjectType)objectAtIndex:(NSUInteger)index;
- (ObjectType)objectAtIndexedSubscript:(NSUInteger)idx;
+ (instancetype)array;
+ (instancetype)arrayWithObjects:(const ObjectType _Nonnull[_Nullable])objects count:(NSUInteger)cnt;
@end
@interface NSMutableArray<ObjectType> : NSArray <ObjectType>
- (void)addObject:(ObjectType)anObject;
+ (instancetype)arrayWithCapacity:(NSUInteger)numItems;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType>
    : NSObject <NSCopying, NSMutableCopying, NSSecureCoding, NSFastEnumeration>
@property (readonly) NSUInteger count;
@property (readonly, copy) NSArray<KeyType> *allKeys;
- (nullable ObjectType)objectForKey:(KeyType)aKey;
- (nullable ObjectType)objectForKeyedSubscript:(KeyType)key;
- (void)enumerateKeysAndObjectsUsingBlock:(void(NS_NOESCAPE ^)(KeyType key, ObjectType obj, BOOL *stop))block;
+ (instancetype)dictionary;
+ (instancetype)dictionaryWithObject:(ObjectType)object forKey:(KeyType<NSCopying>)key;
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull[_Nullable])objects
                              forKeys:(const KeyType<NSCopying> _Nonnull[_Nullable])keys
                                count:(NSUInteger)cnt;
@end
@interface NSMutableDictionary<KeyType, ObjectType> : NSDictionary <KeyType, ObjectType>
- (void)setObject:(ObjectType)anObject forKey:(KeyType<NSCopying>)aKey;
- (void)setObject:(nullable ObjectType)obj forKeyedSubscript:(KeyType<NSCopying>)key;
- (void)removeObjectForKey:(KeyType)aKey;
+ (instancetype)dictionaryWithCapacity:(NSUInteger)numItems;
@end

@interface NSLocale : NSObject <NSCopying, NSSecureCoding>
@property (class, readonly, copy) NSArray<NSString *> *preferredLanguages;
@end

@interface NSSet<__covariant ObjectType> : NSObject <NSCopying, NSMutableCopying, NSSecureCoding, NSFastEnumeration>
@property (readonly) NSUInteger count;
+ (instancetype)setWithObjects:(ObjectType)firstObj, ... NS_REQUIRES_NIL_TERMINATION;
+ (instancetype)setWithArray:(NSArray<ObjectType> *)array;
+ (instancetype)set;
@end
@interface NSMutableSet<ObjectType> : NSSet <ObjectType>
- (void)addObject:(ObjectType)object;
@end

@interface NSURL : NSObject <NSCopying, NSSecureCoding>
@property (nullable, readonly, copy) NSString *absoluteString;
@property (nullable, readonly, copy) NSString *path;
+ (nullable instancetype)URLWithString:(NSString *)URLString;
+ (nullable instancetype)URLWithString:(NSString *)URLString
             encodingInvalidCharacters:(BOOL)encodingInvalidCharacters __attribute__((availability(macos, introduced = 14.0)));
+ (NSURL *)fileURLWithPath:(NSString *)path;
+ (NSURL *)fileURLWithPath:(NSString *)path isDirectory:(BOOL)isDir;
@end

@interface NSError : NSObject <NSCopying, NSSecureCoding>
@property (readonly, copy) NSErrorDomain domain;
@property (readonly) NSInteger code;
@property (readonly, copy) NSDictionary<NSErrorUserInfoKey, id> *userInfo;
@property (readonly, copy) NSString *localizedDescription;
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id> *)dict;
@end

__attribute__((objc_exception))
@interface NSException : NSObject <NSCopying, NSSecureCoding>
@property (readonly, copy) NSExceptionName name;
@property (nullable, readonly, copy) NSString *reason;
@end

@interface NSFileHandle : NSObject <NSSecureCoding>
- (instancetype)initWithFileDescriptor:(int)fd closeOnDealloc:(BOOL)closeopt;
@end

@interface NSBundle : NSObject
@property (class, readonly, strong) NSBundle *mainBundle;
@property (nullable, readonly, copy) NSString *bundleIdentifier;
- (nullable id)objectForInfoDictionaryKey:(NSString *)key;
@property (nullable, readonly, copy) NSDictionary<NSString *, id> *infoDictionary;
@property (readonly, copy) NSString *bundlePath;
- (nullable NSString *)pathForResource:(nullable NSString *)name ofType:(nullable NSString *)ext;
@end

typedef NS_OPTIONS(NSUInteger, NSRegularExpressionOptions) { NSRegularExpressionCaseInsensitive = 1 << 0 };
typedef NS_OPTIONS(NSUInteger, NSMatchingOptions) { NSMatchingAnchored = 1 << 2 };
@interface NSRegularExpression : NSObject <NSCopying, NSSecureCoding>
+ (nullable NSRegularExpression *)regularExpressionWithPattern:(NSString *)pattern
                                                       options:(NSRegularExpressionOptions)options
                                                         error:(NSError *_Nullable *_Nullable)error;
- (NSUInteger)replaceMatchesInString:(NSMutableString *)string
                             options:(NSMatchingOptions)options
                               range:(NSRange)range
                        withTemplate:(NSString *)templ;
@end

typedef NS_OPTIONS(NSUInteger, NSPropertyListMutabilityOptions) { NSPropertyListImmutable = kCFPropertyListImmutable };
typedef NSPropertyListMutabilityOptions NSPropertyListReadOptions;
typedef NS_ENUM(NSUInteger, NSPropertyListFormat) { NSPropertyListXMLFormat_v1_0 = kCFPropertyListXMLFormat_v1_0 };
@interface NSPropertyListSerialization : NSObject
+ (nullable id)propertyListWithData:(NSData *)data
                            options:(NSPropertyListReadOptions)opt
                             format:(nullable NSPropertyListFormat *)format
                              error:(NSError *_Nullable *_Nullable)error;
@end

typedef NS_OPTIONS(NSUInteger, NSJSONReadingOptions) { NSJSONReadingMutableContainers = (1UL << 0) };
@interface NSJSONSerialization : NSObject
+ (nullable id)JSONObjectWithData:(NSData *)data
                          options:(NSJSONReadingOptions)opt
                            error:(NSError *_Nullable *_Nullable)error;
@end

@interface NSRecursiveLock : NSObject <NSLocking>
@end

@interface NSCoder : NSObject
@property (readonly) BOOL requiresSecureCoding;
- (BOOL)containsValueForKey:(NSString *)key;
- (void)encodeObject:(nullable id)object forKey:(NSString *)key;
- (void)encodeBool:(BOOL)value forKey:(NSString *)key;
- (void)encodeInt64:(int64_t)value forKey:(NSString *)key;
- (void)encodeInteger:(NSInteger)value forKey:(NSString *)key;
- (BOOL)decodeBoolForKey:(NSString *)key;
- (int64_t)decodeInt64ForKey:(NSString *)key;
- (NSInteger)decodeIntegerForKey:(NSString *)key;
@property (nullable, readonly, copy) NSError *error;
- (void)failWithError:(NSError *)error;
- (nullable id)decodeObjectOfClass:(Class)aClass forKey:(NSString *)key;
- (nullable id)decodeObjectOfClasses:(nullable NSSet<Class> *)classes forKey:(NSString *)key;
@end
@interface NSKeyedArchiver : NSCoder
+ (nullable NSData *)archivedDataWithRootObject:(id)object
                          requiringSecureCoding:(BOOL)requiresSecureCoding
                                          error:(NSError *_Nullable *_Nullable)error;
@end
@interface NSKeyedUnarchiver : NSCoder
+ (nullable id)unarchivedObjectOfClass:(Class)cls fromData:(NSData *)data error:(NSError *_Nullable *_Nullable)error;
@end

@protocol NSXPCProxyCreating
- (id)remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler;
- (id)synchronousRemoteObjectProxyWithErrorHandler:(void (^)(NSError *error))handler;
@end
typedef NS_OPTIONS(NSUInteger, NSXPCConnectionOptions) { NSXPCConnectionPrivileged = (1 << 12UL) };

@interface NSXPCConnection : NSObject <NSXPCProxyCreating>
- (instancetype)initWithMachServiceName:(NSString *)name options:(NSXPCConnectionOptions)options;
- (instancetype)initWithListenerEndpoint:(NSXPCListenerEndpoint *)endpoint;
@property (nullable, readonly, copy) NSString *serviceName;
@property (readonly, retain) NSXPCListenerEndpoint *endpoint;
@property (nullable, retain) NSXPCInterface *exportedInterface;
@property (nullable, retain) id exportedObject;
@property (nullable, retain) NSXPCInterface *remoteObjectInterface;
@property (readonly, retain) id remoteObjectProxy;
@property (nullable, copy) void (^interruptionHandler)(void);
@property (nullable, copy) void (^invalidationHandler)(void);
@property (readonly) pid_t processIdentifier;
@property (readonly) uid_t effectiveUserIdentifier;
@property (readonly) gid_t effectiveGroupIdentifier;
@property (readonly) au_asid_t auditSessionIdentifier;
- (void)resume;
- (void)suspend;
- (void)activate;
- (void)invalidate;
- (void)scheduleSendBarrierBlock:(void (^)(void))block;
@end

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener *)listener shouldAcceptNewConnection:(NSXPCConnection *)newConnection;
@end
@interface NSXPCListener : NSObject
+ (NSXPCListener *)anonymousListener;
- (instancetype)initWithMachServiceName:(NSString *)name;
@property (nullable, weak) id<NSXPCListenerDelegate> delegate;
@property (readonly, retain) NSXPCListenerEndpoint *endpoint;
- (void)resume;
- (void)suspend;
- (void)activate;
- (void)invalidate;
@end
@interface NSXPCInterface : NSObject
+ (NSXPCInterface *)interfaceWithProtocol:(Protocol *)protocol;
@property (assign) Protocol *protocol;
- (void)setClasses:(NSSet<Class> *)classes forSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;
- (void)setInterface:(NSXPCInterface *)ifc forSelector:(SEL)sel argumentIndex:(NSUInteger)arg ofReply:(BOOL)ofReply;
@end
@interface NSXPCListenerEndpoint : NSObject <NSSecureCoding>
@end
NS_ASSUME_NONNULL_END
