package quorra.repohandler;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertFalse;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import java.util.function.Supplier;
import java.util.stream.Stream;
import javax.tools.ToolProvider;
import org.junit.jupiter.api.DisplayName;
import org.junit.jupiter.api.Test;
import org.junit.jupiter.api.io.TempDir;
import org.junit.jupiter.params.ParameterizedTest;
import org.junit.jupiter.params.provider.Arguments;
import org.junit.jupiter.params.provider.MethodSource;

/** No exception crosses into Java: a failing call gives its failure value and one log line. */
class FailureValuesTest {
    private static final RepositoryHandlerBase handler = new RepositoryHandlerBase();
    private static final String NULL = "(null)";

    @TempDir
    Path dir;

    private static String caught(String call) {
        return "An exception was caught in " + call;
    }

    /** A null repository makes every native fail inside its catch-all. */
    static Stream<Arguments> nullRepository() {
        long[] times = {1L, 2L};
        return Stream.of(
                row(() -> handler.createDirectoryNative(null, "st", true, false, false, 0), null,
                        "createDirectory_((null), st)"),
                row(() -> handler.createLocationNative(null, "st", false, 0), null,
                        "createLocation_((null), st)"),
                row(() -> handler.getLocationNative(null, "st", false, false, false, false, 0), null,
                        "getLocation_((null), st)"),
                row(() -> handler.getLocationOnMountNative(null, "st", "m1", false, false, 0), null,
                        "getLocationOnMount_((null), st, m1)"),
                row(() -> handler.getRepositoryStatusNative(null, 0), -1,
                        "checkRepositoryStatus_((null))"),
                row(() -> handler.checkResourceStatusNative(null, "st", 0), -1,
                        "checkResourceStatus_((null), st)"),
                row(() -> handler.removeResourceNative(null, "st", true, false, 0), -1,
                        "removeResource_((null), st)"),
                row(() -> handler.removeResourceOnMountNative(null, "st", "m1", true, false, 0), -1,
                        "removeResource_((null), st)"),
                row(() -> handler.listFilesNative(null, false, 0), null, "listFiles_((null))"),
                row(() -> handler.listDirsNative(null, false, 0), null, "listDirs_((null))"),
                row(() -> handler.getTimePropertiesNative(null, "st", 0), null,
                        "getTimeProperties_((null), st)"),
                row(() -> {
                    handler.setTimePropertiesNative(null, "st", times, 0);
                    return null;
                }, null, "setTimeProperties_((null), st)"),
                row(() -> handler.lockResourceNative(null, "st", 0), 0, "lockResource_((null), st)"),
                row(() -> handler.unlockResourceNative(null, "st", 0), 0,
                        "unlockResource_((null), st)"),
                row(() -> handler.isDirtyNative(null, "st", 0), 0, "isDirty_((null), st)"),
                row(() -> {
                    handler.setDirtyNative(null, "st", true, 0);
                    return null;
                }, null, "setDirty_((null), st, true)"),
                row(() -> {
                    handler.setDirtyNative(null, "st", false, 0);
                    return null;
                }, null, "setDirty_((null), st, false)"),
                row(() -> handler.getMountPathNative(null, "st", 0), null,
                        "getMountPathForDirectory_((null), st)"),
                row(() -> handler.unAgeNative(null, "st", 0), null, "unAge_((null), st)"),
                row(() -> handler.normalizeFileNameNative(null), null, "normalize_file_name((null))"));
    }

    private static Arguments row(Supplier<Object> call, Object failureValue, String logged) {
        return Arguments.of(logged, call, failureValue);
    }

    @ParameterizedTest(name = "{0}")
    @MethodSource("nullRepository")
    @DisplayName("a native that fails gives its failure value and logs the call once")
    void failureValueAndLogLine(String logged, Supplier<Object> call, Object failureValue)
            throws Exception {
        CapturedSyslog syslog = new CapturedSyslog();
        assertEquals(failureValue, call.get());
        assertEquals(1, syslog.errorsEqualTo(caught(logged)), syslog.dump());
    }

    @Test
    @DisplayName("an exception thrown by the library (a name with a slash) becomes null and the log line")
    void libraryExceptionIsCaught() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        CapturedSyslog syslog = new CapturedSyslog();
        assertNull(handler.createLocationNative(repo.path(), "a/b", false, 0));
        assertNull(handler.createDirectoryNative(repo.path(), "../up", false, false, false, 0));
        assertEquals(1, syslog.errorsEqualTo(caught("createLocation_(" + repo.path() + ", a/b)")),
                syslog.dump());
        assertEquals(1, syslog.errorsEqualTo(caught("createDirectory_(" + repo.path() + ", ../up)")),
                syslog.dump());
        assertArrayEquals(new String[0], handler.listDirsNative(repo.path(), false, 0));
        assertFalse(Files.exists(dir.resolve("up")));
    }

    @Test
    @DisplayName("times without both values change nothing and are logged")
    void shortTimesArray() throws Exception {
        ScratchRepository repo = ScratchRepository.create(dir);
        String location = handler.createLocationNative(repo.path(), "timed", false, 0).getPath();
        ScratchRepository.fill(location);
        long[] before = handler.getTimePropertiesNative(repo.path(), "timed", 0);
        CapturedSyslog syslog = new CapturedSyslog();
        handler.setTimePropertiesNative(repo.path(), "timed", new long[] {5L}, 0);
        handler.setTimePropertiesNative(repo.path(), "timed", null, 0);
        assertArrayEquals(before, handler.getTimePropertiesNative(repo.path(), "timed", 0));
        assertEquals(2, syslog.errorsEqualTo(caught("setTimeProperties_(" + repo.path() + ", timed)")),
                syslog.dump());
    }

    @Test
    @DisplayName("without the ResourceLocationResult class a look-up gives null and names the class")
    void missingResultClass() throws Exception {
        Path classes = probeClassPath();
        CapturedSyslog syslog = new CapturedSyslog();
        assertEquals("result: null", runProbe(classes));
        assertEquals(1, syslog.errorsEqualTo("Failed to get class for ResourceLocationResult class "),
                syslog.dump());
    }

    @Test
    @DisplayName("a ResourceLocationResult without the (String, int, int) constructor gives null and names the constructor")
    void missingResultConstructor() throws Exception {
        Path classes = probeClassPath();
        Path source = dir.resolve("src/quorra/repohandler/ResourceLocationResult.java");
        Files.createDirectories(source.getParent());
        Files.writeString(source, "package quorra.repohandler;\n"
                + "public final class ResourceLocationResult {\n"
                + "    public ResourceLocationResult(String path) {}\n"
                + "}\n");
        int compiled = ToolProvider.getSystemJavaCompiler()
                .run(null, null, null, "-d", classes.toString(), source.toString());
        assertEquals(0, compiled);
        CapturedSyslog syslog = new CapturedSyslog();
        assertEquals("result: null", runProbe(classes));
        assertEquals(1,
                syslog.errorsEqualTo("Failed to get constructor for ResourceLocationResult class "),
                syslog.dump());
    }

    /** A class folder with RepositoryHandlerBase and the probe, but no ResourceLocationResult. */
    private Path probeClassPath() throws IOException {
        Path classes = dir.resolve("classes");
        Path pkg = classes.resolve("quorra/repohandler");
        Files.createDirectories(pkg);
        for (Class<?> c : List.of(RepositoryHandlerBase.class, MissingResultClassProbe.class)) {
            String file = c.getSimpleName() + ".class";
            try (InputStream in = c.getResourceAsStream(file)) {
                Files.copy(in, pkg.resolve(file));
            }
        }
        return classes;
    }

    /** Runs the probe in a child JVM with -Xcheck:jni; its output must hold no JNI warning. */
    private String runProbe(Path classes) throws Exception {
        ScratchRepository repo = ScratchRepository.create(Files.createDirectory(dir.resolve("repo")));
        ScratchRepository.fill(handler.createLocationNative(repo.path(), "study1", false, 0).getPath());
        String java = Path.of(System.getProperty("java.home"), "bin", "java").toString();
        Process child = new ProcessBuilder(java, "-Xcheck:jni",
                "-Djava.library.path=" + System.getProperty("java.library.path"),
                "-cp", classes.toString(), MissingResultClassProbe.class.getName(),
                repo.path(), "study1")
                .redirectErrorStream(true)
                .start();
        String output = new String(child.getInputStream().readAllBytes(), StandardCharsets.UTF_8);
        assertEquals(0, child.waitFor(), output);
        assertFalse(output.contains("WARNING"), output);
        assertTrue(output.contains("result: "), output);
        return output.lines().filter(l -> l.startsWith("result: ")).findFirst().orElse("");
    }
}
