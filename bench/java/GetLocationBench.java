import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import quorra.repohandler.RepositoryHandlerBase;
import quorra.repohandler.ResourceLocationResult;

/**
 * getLocationNative in a plain Java loop (no JMH), on a resource that getlocation_direct has
 * created. The first rounds warm up the JIT. Prints the best time per call over the measured
 * rounds, in nanoseconds of the calling thread's CPU time (user and system), as getlocation_direct
 * measures it:
 *   java_ns_per_call value
 * Usage: GetLocationBench REPOSITORY RESOURCE ROUNDS CALLS_PER_ROUND
 */
public final class GetLocationBench {
    private static final ThreadMXBean THREADS = ManagementFactory.getThreadMXBean();
    private static long sink;

    private static double nanosPerCall(RepositoryHandlerBase handler, String repository,
            String resource, long calls) {
        long start = THREADS.getCurrentThreadCpuTime();
        for (long i = 0; i < calls; ++i) {
            ResourceLocationResult result =
                    handler.getLocationNative(repository, resource, false, false, false, false, 0);
            sink += result.getStatus() + result.getPath().length();
        }
        return (double) (THREADS.getCurrentThreadCpuTime() - start) / calls;
    }

    public static void main(String[] args) {
        String repository = args[0];
        String resource = args[1];
        int rounds = Integer.parseInt(args[2]);
        long calls = Long.parseLong(args[3]);
        RepositoryHandlerBase handler = new RepositoryHandlerBase();
        ResourceLocationResult first =
                handler.getLocationNative(repository, resource, false, false, false, false, 0);
        if (first == null || first.getStatus() != 0) {
            System.err.println("resource not found: " + first);
            System.exit(1);
        }
        for (int r = 0; r < 3; ++r) nanosPerCall(handler, repository, resource, calls);
        double best = Double.MAX_VALUE;
        for (int r = 0; r < rounds; ++r) {
            best = Math.min(best, nanosPerCall(handler, repository, resource, calls));
        }
        System.out.printf("java_ns_per_call %.1f%n", best);
        if (sink == 42) System.out.println();
    }
}
