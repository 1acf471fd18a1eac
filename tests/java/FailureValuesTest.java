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

    @TempDir
    Path dir;

    private static String caught(String call) {
        return "An exception was caught in " + call;
    }

    /** A null repository makes every native fail inside its catch-all. */
    static Stream<Arguments> nullRepository() {
        RepositoryHandlerBase h = handler;
        long[] t = {1L, 2L};
        return Stream.of(
            row("createDirectory_((null), st)", null, () -> h.createDirectoryNative(null, "st", true, false, false, 0)),
            row("createLocation_((null), st)", null, () -> h.createLocationNative(null, "st", false, 0)),
            row("getLocation_((null), st)", null, () -> h.getLocationNative(null, "st", false, false, false, false, 0)),
            row("getLocationOnMount_((null), st, m1)", null, () -> h.getLocationOnMountNative(null, "st", "m1", false, false, 0)),
            row("checkRepositoryStatus_((null))", -1, () -> h.getRepositoryStatusNative(null, 0)),
            row("checkResourceStatus_((null), st)", -1, () -> h.checkResourceStatusNative(null, "st", 0)),
            row("removeResource_((null), st)", -1, () -> h.removeResourceNative(null, "st", true, false, 0)),
            row("removeResource_((null), st)", -1, () -> h.removeResourceOnMountNative(null, "st", "m1", true, false, 0)),
            row("listFiles_((null))", null, () -> h.listFilesNative(null, false, 0)),
            row("listDirs_((null))", null, () -> h.listDirsNative(null, false, 0)),
            row("getTimeProperties_((null), st)", null, () -> h.getTimePropertiesNative(null, "st", 0)),
            row("setTimeProperties_((null), st)", null, () -> { h.setTimePropertiesNative(null, "st", t, 0); return null; }),
            row("lockResource_((null), st)", 0, () -> h.lockResourceNative(null, "st", 0)),
            row("unlockResource_((null), st)", 0, () -> h.unlockResourceNative(null, "st", 0)),
            row("isDirty_((null), st)", 0, () -> h.isDirtyNative(null, "st", 0)),
            row("setDirty_((null), st, true)", null, () -> { h.setDirtyNative(null, "st", true, 0); return null; }),
            row("setDirty_((null), st, false)", null, () -> { h.setDirtyNative(null, "st", false, 0); return null; }),
            row("getMountPathForDirectory_((null), st)", null, () -> h.getMountPathNative(null, "st", 0)),
            row("unAge_((null), st)", null, () -> h.unAgeNative(null, "st", 0)),
            row("normalize_file_name((null))", null, () -> h.normalizeFileNameNative(null)));
    }

    private static Arguments row(String logged, Object failureValue, Supplier<Object> call) {
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
