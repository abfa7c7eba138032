namespace hostbinder_test {
int runMain(int argc, char** argv);
}

int main(int argc, char** argv) {
    return hostbinder_test::runMain(argc, argv);
}
