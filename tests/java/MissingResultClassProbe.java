package quorra.repohandler;

/**
 * Run in a child JVM whose class path has RepositoryHandlerBase but no usable
 * ResourceLocationResult: prints what getLocationNative returned.
 * Arguments: repository path, resource name.
 */
public final class MissingResultClassProbe {
    public static void main(String[] args) {
        Object result = new RepositoryHandlerBase()
                .getLocationNative(args[0], args[1], false, false, false, false, 0);
        System.out.println(result == null ? "result: null" : "result: object");
    }
}
