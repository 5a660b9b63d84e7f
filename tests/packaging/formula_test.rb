# Runs a formula here: formula_test.rb FORMULA SOURCE PREFIX BUILD
#
# The package manager's own words are played by what this file defines of them, as its documentation describes
# them. `install` configures for real, with every option checked, and installs the build that is already there;
# the formula's test then runs whole, on what was installed.
require "fileutils"
require "open3"
require "pathname"
require "tmpdir"

$failures = []

class Formula
  class << self
    attr_reader :fields, :dependencies, :test_block

    %i[desc homepage url version sha256].each do |field|
      define_method(field) { |value| (@fields ||= {})[field] = value }
    end

    def depends_on(what)
      (@dependencies ||= []) << what
    end

    def test(&block)
      @test_block = block
    end
  end

  attr_reader :testpath

  def initialize(source, prefix, build, testpath)
    @source, @prefix, @build, @testpath = Pathname(source), Pathname(prefix), build, Pathname(testpath)
  end

  def bin = @prefix/"bin"
  def include = @prefix/"include"
  def lib = @prefix/"lib"

  def std_cmake_args
    ["-DCMAKE_INSTALL_PREFIX=#{@prefix}", "-DCMAKE_INSTALL_LIBDIR=lib", "-DCMAKE_BUILD_TYPE=Release",
     "-DCMAKE_FIND_FRAMEWORK=LAST", "-DCMAKE_VERBOSE_MAKEFILE=ON", "-Wno-dev"]
  end

  def system(*words)
    return configure(words) if words.first == "cmake" && words[1] == "-S"
    return true if words == ["cmake", "--build", "build"]
    return install_build if words == ["cmake", "--install", "build"]

    out, status = Open3.capture2e(*words)
    raise "#{words.join(" ")}: #{out}" unless status.success?
  end

  def shell_output(command, expected = 0)
    # Shared libraries, which this system's build has, are found by their whole names on a Mac.
    out, status = Open3.capture2({"LD_LIBRARY_PATH" => lib.to_s}, command)
    check(command, "exit code", expected, status.exitstatus)
    out
  end

  def pipe_output(command, input = nil, expected = nil)
    out, status = Open3.capture2(command, stdin_data: input)
    check(command, "exit code", expected, status.exitstatus) unless expected.nil?
    out
  end

  def assert_equal(expected, actual)
    check(caller(1..1).first, "text", expected, actual)
  end

  def refute_predicate(object, predicate)
    check(caller(1..1).first, predicate, false, object.public_send(predicate))
  end

  private

  def check(where, what, expected, actual)
    $failures << "#{where}: #{what} is #{actual.inspect}, not #{expected.inspect}" if expected != actual
  end

  def configure(words)
    Dir.mktmpdir do |build|
      words[words.index("-B") + 1] = build
      words[words.index("-S") + 1] = @source.to_s
      out, status = Open3.capture2e(*words)
      raise out unless status.success?
      # What only a Mac's CMake looks at.
      unused = out[/Manually-specified variables were not used.*/m].to_s.scan(/^ +(\w+)$/).flatten
      unused -= %w[CMAKE_FIND_FRAMEWORK]
      $failures << "options that nobody reads: #{unused.join(" ")}" unless unused.empty?
    end
  end

  def install_build
    system("cmake", "--install", @build, "--prefix", @prefix.to_s)
  end
end

def ENV.cxx = fetch("CXX", "c++")

formula, source, prefix, build = ARGV
load formula
raise "fields are missing" unless Kestrace.fields.keys.sort == %i[desc homepage sha256 url version]
raise "its checksum is none" unless Kestrace.fields[:sha256].match?(/\A\h{64}\z/)
raise "desc ends with a full stop or is too long" if Kestrace.fields[:desc].match?(/\.\z|.{81}/)

Dir.mktmpdir do |testpath|
  Dir.chdir(testpath) do
    kestrace = Kestrace.new(source, prefix, build, testpath)
    kestrace.install
    kestrace.instance_eval(&Kestrace.test_block)
  end
end
puts $failures
exit($failures.empty? ? 0 : 1)
