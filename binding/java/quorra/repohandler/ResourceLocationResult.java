package quorra.repohandler;

/**
 * The answer of a location call: the resource's directory (null when there is none) and two
 * integers.
 *
 * <p>For {@code createDirectoryNative} and {@code createLocationNative} the integers are the
 * creation status and the second status of the C call. For {@code getLocationNative} and
 * {@code getLocationOnMountNative} the first is the lookup status (0 found, 1 found but still
 * dirty, 2 conflict not resolved, 4 missing, 8 erroneous, 16 lock not obtained, 36 not present)
 * and the second is always 1.
 *
 * <p>Instances are built by the native library through the constructor
 * {@code (Ljava/lang/String;II)V}; keep that constructor's signature unchanged. Immutable and
 * therefore thread-safe.
 */
public final class ResourceLocationResult {
    private final String path;
    private final int status;
    private final int secondStatus;

    public ResourceLocationResult(String path, int status, int secondStatus) {
        this.path = path;
        this.status = status;
        this.secondStatus = secondStatus;
    }

    /** The resource's directory, or null when the call found or created none. */
    public String getPath() {
        return path;
    }

    /** The first integer: the status of the call. */
    public int getStatus() {
        return status;
    }

    /** The second integer: the creation call's second status, 1 for the look-ups. */
    public int getSecondStatus() {
        return secondStatus;
    }

    @Override
    public String toString() {
        return "ResourceLocationResult[" + path + ", " + status + ", " + secondStatus + "]";
    }
}
