package quorra.repohandler;

/**
 * The Java side of librepohandler.so: one native method per repository operation.
 *
 * <p>Loading: the class loads the library "repohandler" when it is first initialised, through
 * {@link System#loadLibrary(String)}. The JVM looks for {@code librepohandler.so} in the
 * directories of the system property {@code java.library.path}, so start the JVM with
 * {@code -Djava.library.path=/usr/lib/x86_64-linux-gnu} (or wherever the library is installed;
 * several directories are separated by ':'). When the library cannot be found, initialising this
 * class throws {@link UnsatisfiedLinkError}. The class {@link ResourceLocationResult} must be on
 * the same class path: without it the location calls return null.
 *
 * <p>Arguments: every method names the repository by its directory path. {@code db} is the
 * address of a native {@code kelp::db::DBConnector} owned by the caller, or 0 for none (a shared
 * repository then uses a connector of its own). Strings must not be null.
 *
 * <p>Errors: no exception crosses from the library into Java. When an operation fails with an
 * exception, the method returns its failure value (null, -1 or 0 as documented below) and the
 * library writes the reason to syslog (ident "KSRepositoryHandler").
 *
 * <p>Thread safety: every method may be called from many threads at once. The class holds no
 * state; subclasses add the server's policy around the natives.
 */
public class RepositoryHandlerBase {
    static {
        System.loadLibrary("repohandler");
    }

    /** Creates a directory for the resource; null on exception. */
    public native ResourceLocationResult createDirectoryNative(String repository, String resource,
            boolean flag1, boolean flag2, boolean flag3, long db);

    /** Creates a location for a new resource on a mount chosen by fill level; null on exception. */
    public native ResourceLocationResult createLocationNative(String repository, String resource,
            boolean noDirty, long db);

    /** Finds the resource; the result's second integer is 1. Null on exception. */
    public native ResourceLocationResult getLocationNative(String repository, String resource,
            boolean touch, boolean lock, boolean useCallback, boolean onlyIfDirty, long db);

    /** Finds the resource on one named mount; the result's second integer is 1. Null on exception. */
    public native ResourceLocationResult getLocationOnMountNative(String repository,
            String resource, String mount, boolean lock, boolean touch, long db);

    /** The repository status bit mask (256: unusable); -1 on exception. */
    public native int getRepositoryStatusNative(String repository, long db);

    /** The resource's lookup status; -1 on exception. */
    public native int checkResourceStatusNative(String repository, String resource, long db);

    /** Removes the resource everywhere; the ORed removal results, -1 on exception. */
    public native int removeResourceNative(String repository, String resource, boolean lock,
            boolean useCallback, long db);

    /** Removes the resource from one named mount; -1 on exception. */
    public native int removeResourceOnMountNative(String repository, String resource,
            String mount, boolean lock, boolean useCallback, long db);

    /** The files of the repository; null on exception. */
    public native String[] listFilesNative(String repository, boolean flag, long db);

    /** The resource directories of the repository; null on exception. */
    public native String[] listDirsNative(String repository, boolean flag, long db);

    /**
     * The resource's access and modification times in seconds, in that order; null when the
     * resource is not found or on exception.
     */
    public native long[] getTimePropertiesNative(String repository, String resource, long db);

    /**
     * Sets the resource's access and modification times (seconds, {@code times[0]} and
     * {@code times[1]}). A null or shorter array changes nothing.
     */
    public native void setTimePropertiesNative(String repository, String resource, long[] times,
            long db);

    /** Takes the resource's lock; 0 on exception. */
    public native int lockResourceNative(String repository, String resource, long db);

    /** Releases the resource's lock; 0 on exception. */
    public native int unlockResourceNative(String repository, String resource, long db);

    /** Whether the resource is in the repository's dirty set (non-zero); 0 on exception. */
    public native int isDirtyNative(String repository, String resource, long db);

    /** Adds the resource to the dirty set or removes it from it. */
    public native void setDirtyNative(String repository, String resource, boolean dirty, long db);

    /** The mount path that holds the directory; null when none or on exception. */
    public native String getMountPathNative(String repository, String directory, long db);

    /** Moves the resource back onto a fast mount; its new location, or null. */
    public native String unAgeNative(String repository, String resource, long db);

    /** The path with redundant separators and "." / ".." components folded; null on failure. */
    public native String normalizeFileNameNative(String path);
}
