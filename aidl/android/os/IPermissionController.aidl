package android.os;

// The platform's permission controller, published as the service "permission".
interface IPermissionController {
    boolean checkPermission(String permission, int pid, int uid);
}
